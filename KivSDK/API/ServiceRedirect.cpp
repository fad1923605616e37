#include <memory>
#include <utility>

#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ZuNetworking/URLError.hpp"

namespace kiv {
namespace {

/// A session that sends requests for the SDK's built-in service address to another address.
class RedirectingSession final : public zu::URLSession {
 public:
  RedirectingSession(std::shared_ptr<zu::URLSession> session, const std::string& to)
      : session_(std::move(session)),
        from_(std::string(KivAPI::APIEndpoint::baseURL()) + "/"),
        to_(to + "/") {}

  const zu::URLSessionConfiguration& configuration() const override { return session_->configuration(); }
  std::shared_ptr<zu::URLSessionTask> dataTask(zu::URLRequest request, DataCompletion completion) override {
    return session_->dataTask(redirected(std::move(request)), std::move(completion));
  }
  std::shared_ptr<zu::URLSessionTask> uploadTask(zu::URLRequest request, zu::URL fromFile,
                                                 DataCompletion completion) override {
    return session_->uploadTask(redirected(std::move(request)), std::move(fromFile), std::move(completion));
  }
  std::shared_ptr<zu::URLSessionTask> downloadTask(zu::URLRequest request,
                                                   DownloadCompletion completion) override {
    return session_->downloadTask(redirected(std::move(request)), std::move(completion));
  }

 private:
  // The new base is a URL and the rest of the text already stood in one, so the joined text is a URL too.
  zu::URLRequest redirected(zu::URLRequest request) const {
    const std::string& text = request.url.absoluteString();
    if (text.starts_with(from_)) request.url = *zu::URL::fromString(to_ + text.substr(from_.size()));
    return request;
  }

  std::shared_ptr<zu::URLSession> session_;
  std::string from_;
  std::string to_;
};

zu::ZuNetworking::URLSessionType trustedSessions(const std::optional<std::string>& caFile) {
  if (caFile) return zu::ZuNetworking::URLSessionType::trusting(*caFile);
  const auto builtIn = KivAPI::serviceCertificateAuthorityFile();
  return builtIn ? zu::ZuNetworking::URLSessionType::trusting(*builtIn)
                 : zu::ZuNetworking::URLSessionType::standard();
}

// The address without trailing "/", when it is an https URL with a host.
std::optional<std::string> serviceAddress(std::string baseURL) {
  while (baseURL.ends_with('/')) baseURL.pop_back();
  const auto url = zu::URL::fromString(baseURL);
  if (!url || url->scheme() != "https" || url->host().empty()) return std::nullopt;
  return baseURL;
}

}  // namespace

zu::Result<KivAPI::NetworkingType> KivAPI::redirectedNetworkingType(
    const std::string& baseURL, const std::optional<std::string>& caFile) {
  const auto address = serviceAddress(baseURL);
  if (!address) {
    return zu::Error(std::string(zu::Error::urlDomain), zu::URLError::badURL,
                     {{std::string(zu::Error::localizedDescriptionKey),
                       "The service's address must be an https address, not \"" + baseURL + "\"."}});
  }
  auto trusting = trustedSessions(caFile);
  // Storage addresses the service hands out already name it, so only the shared session redirects.
  auto redirecting = std::make_shared<RedirectingSession>(trusting.sharedSession(), *address);
  const zu::ZuNetworking::URLSessionType sessions{[redirecting] { return redirecting; }, trusting.make};
  return NetworkingType([sessions](std::optional<std::string> authToken, std::string identifier) {
    auto networking = std::make_shared<zu::ZuNetworking>(std::move(authToken), std::move(identifier));
    networking->set_URLSessionType(sessions);
    return networking;
  });
}

}  // namespace kiv
