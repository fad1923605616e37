#include "ZuNetworking/URLSession.hpp"

#include <utility>

#include "ZuNetworking/detail/CurlEngine.hpp"

namespace zu {
namespace {

using detail::Engine;

/// The libcurl session: a facade over its engine, whose worker thread stops when the session goes.
class CurlSession final : public URLSession {
 public:
  CurlSession(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate)
      : engine_(std::make_shared<Engine>(std::move(configuration), std::move(delegate))) {
    engine_->start(this);
  }
  ~CurlSession() override { engine_->stop(); }

  const URLSessionConfiguration& configuration() const override { return engine_->configuration(); }

  std::shared_ptr<URLSessionTask> dataTask(URLRequest request, DataCompletion completion) override {
    return engine_->makeTask(Engine::Kind::data, std::move(request), std::nullopt, std::move(completion), {});
  }
  std::shared_ptr<URLSessionTask> uploadTask(URLRequest request, URL fromFile,
                                             DataCompletion completion) override {
    return engine_->makeTask(Engine::Kind::upload, std::move(request), std::move(fromFile),
                             std::move(completion), {});
  }
  std::shared_ptr<URLSessionTask> downloadTask(URLRequest request, DownloadCompletion completion) override {
    return engine_->makeTask(Engine::Kind::download, std::move(request), std::nullopt, {},
                             std::move(completion));
  }

 private:
  std::shared_ptr<Engine> engine_;
};

struct AuthorityFile {
  std::mutex mutex;
  std::optional<std::string> path;
};

AuthorityFile& authorityFile() {
  static AuthorityFile instance;
  return instance;
}

}  // namespace

URLSessionConfiguration URLSessionConfiguration::background(std::string withIdentifier) {
  URLSessionConfiguration configuration;
  configuration.identifier = std::move(withIdentifier);
  return configuration;
}

std::optional<HTTPURLResponse> URLSessionTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

void URLSessionTask::setResponse(HTTPURLResponse response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void URLSessionTask::setProgressHandler(ProgressHandler handler) {
  std::lock_guard lock(mutex_);
  progressHandler_ = std::move(handler);
}

URLSessionTask::ProgressHandler URLSessionTask::progressHandler() const {
  std::lock_guard lock(mutex_);
  return progressHandler_;
}

void URLSessionDelegate::didReceive(URLSession&, URLSessionTask&, const Data&) {}
void URLSessionDelegate::didFinishDownloadingTo(URLSession&, URLSessionTask&, const URL&) {}
void URLSessionDelegate::didCompleteWithError(URLSession&, URLSessionTask&, const std::optional<Error>&) {}
void URLSessionDelegate::urlSessionDidFinishEvents(URLSession&) {}

std::shared_ptr<URLSession> URLSession::shared() {
  // Destroyed at exit: its worker completes whatever is still running as cancelled, then stops.
  static const std::shared_ptr<URLSession> session = make(URLSessionConfiguration::defaultConfiguration());
  return session;
}

std::shared_ptr<URLSession> URLSession::make(URLSessionConfiguration configuration,
                                             std::weak_ptr<URLSessionDelegate> delegate) {
  return std::make_shared<CurlSession>(std::move(configuration), std::move(delegate));
}

void URLSession::setAdditionalCertificateAuthorityFile(std::optional<std::string> path) {
  std::lock_guard lock(authorityFile().mutex);
  authorityFile().path = std::move(path);
}

std::optional<std::string> URLSession::additionalCertificateAuthorityFile() {
  std::lock_guard lock(authorityFile().mutex);
  return authorityFile().path;
}

}  // namespace zu
