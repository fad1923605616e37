#include "ZuNetworking/ZuNetworking.hpp"

#include <mutex>
#include <typeinfo>
#include <utility>

#include "AnyCodable/JSONSerialization.hpp"
#include "ZuFoundation/DispatchQueue.hpp"
#include "ZuFoundation/FatalError.hpp"
#include "ZuFoundation/internal/Posix.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace zu {
namespace {

using LogLevel = ZuLogger::LogLevel;

const std::string kRequestRule(55, '>');
const std::string kAnswerRule(57, '<');

std::string bodyText(const std::optional<AnyCodable>& body) { return body ? body->description() : "None"; }

// The ">" block written before a request is built; `cls` is the speaking class.
void logRequestBlock(const std::type_info* cls, const std::string& headline,
                     const std::optional<AnyCodable>& body) {
  ZuLogger::_printToConsole(kRequestRule, cls, LogLevel::debug);
  ZuLogger::_printToConsole(headline, cls, LogLevel::debug);
  ZuLogger::_printToConsole("Request Body: " + bodyText(body), cls, LogLevel::debug);
  ZuLogger::_printToConsole(kRequestRule + "\n", cls, LogLevel::debug);
}

// The "<" block written once an answer has been judged.
void logAnswerBlock(const std::type_info* cls, const std::string& headline,
                    const std::optional<AnyCodable>& body, const std::optional<std::string>& payload,
                    const std::optional<Error>& error) {
  ZuLogger::_printToConsole(kAnswerRule, cls, LogLevel::debug);
  ZuLogger::_printToConsole(headline, cls, LogLevel::debug);
  ZuLogger::_printToConsole("Original Request Body: " + bodyText(body), cls, LogLevel::debug);
  ZuLogger::_printToConsole("Response object: " + payload.value_or("None"), cls, LogLevel::debug);
  if (error)
    ZuLogger::_printToConsole("Error Description: " + error->localizedDescription(), cls, LogLevel::debug);
  ZuLogger::_printToConsole(kAnswerRule + "\n", cls, LogLevel::debug);
}

// Wraps a caller's completion so that the answer block is logged just before it runs.
ZuNetworking::JSONCompletion loggingAnswer(const std::type_info* cls, std::string headline,
                                           std::optional<AnyCodable> body,
                                           ZuNetworking::JSONCompletion completion) {
  return [cls, headline = std::move(headline), body = std::move(body), completion = std::move(completion)](
             std::optional<AnyCodable> payload, std::optional<Error> error) {
    logAnswerBlock(cls, headline, body, payload ? std::optional(payload->description()) : std::nullopt,
                   error);
    completion(std::move(payload), std::move(error));
  };
}

ZuNetworking::DownloadCompletion loggingDownload(const std::type_info* cls, std::string headline,
                                                 ZuNetworking::DownloadCompletion completion) {
  return [cls, headline = std::move(headline), completion = std::move(completion)](
             std::optional<URL> location, std::optional<Error> error) {
    logAnswerBlock(cls, headline, std::nullopt,
                   location ? std::optional(location->absoluteString()) : std::nullopt, error);
    completion(std::move(location), std::move(error));
  };
}

std::string placement(bool inBackground) { return inBackground ? "(background)" : "(foreground)"; }

// A body of string values only, the one shape that "GET" and "DELETE" turn into query items.
std::optional<std::vector<URL::QueryItem>> queryItems(const std::optional<AnyCodable>& body) {
  const auto* dictionary = body ? body->dictionaryValue() : nullptr;
  if (!dictionary) return std::nullopt;
  std::vector<URL::QueryItem> items;
  for (const auto& [name, value] : *dictionary) {
    if (!value.stringValue()) return std::nullopt;
    items.emplace_back(name, *value.stringValue());
  }
  return items;
}

// A failed download's answer is in its file; a small one is read so that the error can quote the service.
std::optional<Data> errorBody(const std::optional<URL>& location) {
  constexpr std::size_t kLimit = std::size_t{64} << 10;
  if (!location) return std::nullopt;
  auto body = detail::readWholeFile(location->path(), kLimit);
  return body ? std::optional(std::move(*body)) : std::nullopt;
}

}  // namespace

ZuNetworking::URLSessionType ZuNetworking::URLSessionType::standard() {
  return {[] { return URLSession::shared(); },
          [](URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate) {
            return URLSession::make(std::move(configuration), std::move(delegate));
          }};
}

ZuNetworking::URLSessionType ZuNetworking::URLSessionType::trusting(std::string certificateAuthorityFile) {
  struct SharedSession {
    std::once_flag made;
    std::shared_ptr<URLSession> session;
  };
  auto shared = std::make_shared<SharedSession>();
  return {[shared, certificateAuthorityFile] {
            std::call_once(shared->made, [&] {
              auto configuration = URLSessionConfiguration::defaultConfiguration();
              configuration.additionalCertificateAuthorityFile = certificateAuthorityFile;
              shared->session = URLSession::make(std::move(configuration));
            });
            return shared->session;
          },
          [certificateAuthorityFile](URLSessionConfiguration configuration,
                                     std::weak_ptr<URLSessionDelegate> delegate) {
            configuration.additionalCertificateAuthorityFile = certificateAuthorityFile;
            return URLSession::make(std::move(configuration), std::move(delegate));
          }};
}

ZuNetworking::ZuNetworking(std::optional<std::string> authToken, std::string identifier)
    : _serverAuthToken(std::move(authToken)),
      _identifier(std::move(identifier)),
      _URLSessionType(URLSessionType::standard()) {}

ZuNetworking::~ZuNetworking() = default;

void ZuNetworking::set_URLSessionType(URLSessionType type) {
  std::lock_guard lock(mutex_);
  _URLSessionType = std::move(type);
}

std::shared_ptr<URLSession> ZuNetworking::sharedSession() const {
  std::lock_guard lock(mutex_);
  return _URLSessionType.sharedSession();
}

// ---- Requests ----

Result<URLRequest> ZuNetworking::_request(const URL& forURL, const std::string& method,
                                          const std::optional<AnyCodable>& body,
                                          const std::string& contentType, const Headers& extraHeaders) const {
  const bool bodyIsQuery = method == "GET" || method == "DELETE";
  URL url = forURL;
  if (bodyIsQuery) {
    if (auto items = queryItems(body)) url = url.appendingQueryItems(*items);
  }
  URLRequest request(std::move(url), URLRequest::CachePolicy::useProtocolCachePolicy, 60.0);
  request.httpMethod = method;
  request.maximumResponseLength = maximumJSONResponseLength;
  if (_serverAuthToken && !_serverAuthToken->empty()) request.setValue(*_serverAuthToken, "Authorization");
  request.addValue(contentType, "Content-Type");
  for (const auto& [name, value] : extraHeaders) request.addValue(value, name);
  if (!bodyIsQuery && body) {
    auto json = JSONSerialization::data(*body);
    if (!json) {
      return Error(ZuError::invalidPayload("Invalid JSON payload for Request: " +
                                           json.error().localizedDescription()));
    }
    request.httpBody = std::move(*json);
  }
  return request;
}

std::shared_ptr<URLSessionTask> ZuNetworking::sendRequest(const URL& forURL, const std::string& method,
                                                          const Headers& extraHeaders,
                                                          const std::optional<AnyCodable>& body,
                                                          bool acceptEmptyResponse,
                                                          JSONCompletion completion) {
  const std::type_info* cls = &typeid(*this);
  const std::string& url = forURL.absoluteString();
  logRequestBlock(cls, "Initiating " + method + " request to URL: " + url, body);
  auto request = _request(forURL, method, body, "application/json", extraHeaders);
  if (!request) {
    completion(std::nullopt, request.error());
    return nullptr;
  }
  auto judged =
      loggingAnswer(cls, "Response for " + method + " request to URL: " + url, body, std::move(completion));
  auto task = sharedSession()->dataTask(
      std::move(*request),
      [acceptEmptyResponse, judged = std::move(judged)](const std::optional<Data>& data,
                                                        const std::optional<HTTPURLResponse>& response,
                                                        const std::optional<Error>& error) {
        _process(response, data, error, acceptEmptyResponse, judged);
      });
  task->resume();
  return task;
}

std::shared_ptr<URLSessionTask> ZuNetworking::sendRequestAllowEmptyResponse(
    const URL& forURL, const std::string& method, const Headers& extraHeaders,
    const std::optional<AnyCodable>& body, JSONCompletion completion) {
  return sendRequest(forURL, method, extraHeaders, body, true, std::move(completion));
}

std::shared_ptr<URLSessionTask> ZuNetworking::sendRequestWithDictionaryResponse(
    const URL& forURL, const std::string& method, const Headers& extraHeaders,
    const std::optional<AnyCodable>& body, DictionaryCompletion completion) {
  return sendRequest(
      forURL, method, extraHeaders, body, false,
      [completion = std::move(completion)](std::optional<AnyCodable> payload, std::optional<Error> error) {
        if (error) return completion(std::nullopt, std::move(error));
        if (const auto* dictionary = payload ? payload->dictionaryValue() : nullptr) {
          return completion(*dictionary, std::nullopt);
        }
        completion(std::nullopt, ZuError::invalidResponseData(
                                     "Response received invalid payload type, expected a JSON dictionary"));
      });
}

// Takes its completion by value like every other sender, though it never calls it.
std::shared_ptr<URLSessionTask> ZuNetworking::sendRequestWithResultsArrayInDictionaryResponse(
    const URL&, const std::string&, const Headers&, const std::optional<AnyCodable>&, const std::string&,
    ResultsArrayCompletion) {  // NOLINT(performance-unnecessary-value-param)
  fatalError("sendRequestWithResultsArrayInDictionaryResponse is not available");
}

// ---- Judging answers ----

void ZuNetworking::_process(const std::optional<HTTPURLResponse>& response,
                            const std::optional<Data>& withData, const std::optional<Error>& error,
                            bool acceptEmptyResponsePayload, const JSONCompletion& completion) {
  if (error) return completion(std::nullopt, error);
  if (!response) fatalError("An answer came with neither an error nor a response");
  if (!_isHTTPStatusCode2XX(*response)) {
    auto description =
        _errorString(withData).value_or(HTTPURLResponse::localizedString(response->statusCode));
    return completion(std::nullopt, Error(_statusCodeError(*response, std::move(description))));
  }
  auto payload = _payload(withData);
  if (payload) return completion(std::move(*payload), std::nullopt);
  const auto zuError = payload.error().zuError();
  if (acceptEmptyResponsePayload && zuError && zuError->kind() == ZuError::Kind::emptyResponseData) {
    return completion(std::nullopt, std::nullopt);
  }
  completion(std::nullopt, payload.error());
}

void ZuNetworking::_process(const std::optional<HTTPURLResponse>& downloadResponse,
                            const std::optional<URL>& withURL, const std::optional<Error>& error,
                            const DownloadCompletion& completion) {
  if (error) return completion(std::nullopt, error);
  if (!downloadResponse) fatalError("A download came with neither an error nor a response");
  if (!_isHTTPStatusCode2XX(*downloadResponse)) {
    auto description = _errorString(errorBody(withURL))
                           .value_or(HTTPURLResponse::localizedString(downloadResponse->statusCode));
    return completion(std::nullopt, Error(_statusCodeError(*downloadResponse, std::move(description))));
  }
  if (!withURL) return completion(std::nullopt, Error(ZuError::emptyResponseData()));
  completion(withURL, std::nullopt);
}

Result<AnyCodable> ZuNetworking::_payload(const std::optional<Data>& data) {
  if (!data || data->empty()) return Error(ZuError::emptyResponseData());
  if (data->size() > maximumJSONResponseLength) {
    return Error(ZuError::invalidResponseData("Response larger than " +
                                              std::to_string(maximumJSONResponseLength) +
                                              " bytes, the most that is read as JSON"));
  }
  auto object = JSONSerialization::jsonObject(*data);
  if (!object) return object;
  if (object->dictionaryValue() || object->arrayValue()) return object;
  return Error(ZuError::invalidResponseData(
      "Response received invalid payload type, expected a JSON dictionary or array"));
}

std::optional<std::string> ZuNetworking::_errorString(const std::optional<Data>& data) {
  auto payload = _payload(data);
  if (!payload) return std::nullopt;
  const auto* dictionary = payload->dictionaryValue();
  if (!dictionary) return payload->description();
  // Only the texts of an error object are shown; keys and non-text values carry nothing for people.
  std::string text;
  for (const auto& [key, value] : *dictionary) {
    if (const auto* line = value.stringValue()) text.append("\n").append(*line);
  }
  return text;
}

bool ZuNetworking::_isHTTPStatusCode2XX(const HTTPURLResponse& response) {
  return response.statusCode - 200 >= 0 && response.statusCode - 200 <= 99;
}

ZuError ZuNetworking::_statusCodeError(const HTTPURLResponse& forResponse,
                                       std::optional<std::string> description) {
  return ZuError::unsuccesfullHTTPResponseCode(forResponse.statusCode, std::move(description));
}

// ---- Transfers ----

std::shared_ptr<URLSessionTask> ZuNetworking::uploadRequest(const URL& forURL, bool inBackground,
                                                            const std::string& method,
                                                            const std::string& contentType,
                                                            const Headers& extraHeaders, const URL& fileURL,
                                                            JSONCompletion completion,
                                                            URLSessionTask::ProgressHandler progress) {
  Headers headers = extraHeaders;
  headers["Content-Disposition"] = "attachment; filename=" + fileURL.lastPathComponent();
  auto request = _request(forURL, method, std::nullopt, contentType, headers);
  if (!request) {
    completion(std::nullopt, request.error());
    return nullptr;
  }
  const std::type_info* cls = &typeid(*this);
  const std::string where = placement(inBackground) + " to URL: " + forURL.absoluteString();
  logRequestBlock(cls, "Initiating upload " + method + " request " + where, std::nullopt);
  auto judged = loggingAnswer(cls, "Response for upload " + method + " request " + where, std::nullopt,
                              std::move(completion));
  return inBackground ? _uploadInBackground(*request, fileURL, true, std::move(judged), std::move(progress))
                      : _upload(*request, fileURL, std::move(judged), std::move(progress));
}

std::shared_ptr<URLSessionTask> ZuNetworking::downloadRequest(const URL& forURL, bool inBackground,
                                                              const std::string& method,
                                                              const Headers& extraHeaders,
                                                              DownloadCompletion completion,
                                                              URLSessionTask::ProgressHandler progress) {
  auto request = _request(forURL, method, std::nullopt, "application/json", extraHeaders);
  if (!request) {
    completion(std::nullopt, request.error());
    return nullptr;
  }
  const std::type_info* cls = &typeid(*this);
  const std::string& url = forURL.absoluteString();
  logRequestBlock(
      cls, "Initiating download " + method + " " + placement(inBackground) + " request for URL: " + url,
      std::nullopt);
  auto judged = loggingDownload(
      cls, "Response for download " + method + " " + placement(inBackground) + " request from URL: " + url,
      std::move(completion));
  return inBackground ? _downloadInBackground(*request, std::move(judged), std::move(progress))
                      : _download(*request, std::move(judged), std::move(progress));
}

std::shared_ptr<URLSessionTask> ZuNetworking::_upload(const URLRequest& request, const URL& fileUrl,
                                                      JSONCompletion completion,
                                                      URLSessionTask::ProgressHandler progress) {
  auto task = sharedSession()->uploadTask(
      request, fileUrl,
      [completion = std::move(completion)](
          const std::optional<Data>& data, const std::optional<HTTPURLResponse>& response,
          const std::optional<Error>& error) { _process(response, data, error, true, completion); });
  task->setProgressHandler(std::move(progress));
  task->resume();
  return task;
}

std::shared_ptr<URLSessionTask> ZuNetworking::_download(const URLRequest& request,
                                                        DownloadCompletion completion,
                                                        URLSessionTask::ProgressHandler progress) {
  auto task = sharedSession()->downloadTask(
      request, [completion = std::move(completion)](
                   const std::optional<URL>& location, const std::optional<HTTPURLResponse>& response,
                   const std::optional<Error>& error) { _process(response, location, error, completion); });
  task->setProgressHandler(std::move(progress));
  task->resume();
  return task;
}

// Background tasks are recorded before they start: a fast task's callbacks would otherwise find no entry and
// its completion would never run.
std::shared_ptr<URLSessionTask> ZuNetworking::_uploadInBackground(const URLRequest& request,
                                                                  const URL& fileUrl,
                                                                  bool acceptEmptyResponse,
                                                                  JSONCompletion completion,
                                                                  URLSessionTask::ProgressHandler progress) {
  auto task = backgroundSession()->uploadTask(request, fileUrl, {});
  task->setProgressHandler(std::move(progress));
  {
    std::lock_guard lock(mutex_);
    _pendingTaksDictionary[task->taskIdentifier()] = {
        task, {std::move(completion), std::nullopt, acceptEmptyResponse}};
  }
  task->resume();
  return task;
}

std::shared_ptr<URLSessionTask> ZuNetworking::_downloadInBackground(
    const URLRequest& request, DownloadCompletion completion, URLSessionTask::ProgressHandler progress) {
  auto task = backgroundSession()->downloadTask(request, {});
  task->setProgressHandler(std::move(progress));
  {
    std::lock_guard lock(mutex_);
    _pendingTaksDictionary[task->taskIdentifier()] = {task, {std::move(completion), std::nullopt, false}};
  }
  task->resume();
  return task;
}

std::shared_ptr<URLSession> ZuNetworking::createBackgroundURLSession() { return backgroundSession(); }

std::shared_ptr<URLSession> ZuNetworking::backgroundSession() {
  // Made outside `mutex_`: a new session may start delivering journalled events, which take that lock.
  std::lock_guard creation(backgroundSessionMutex_);
  {
    std::lock_guard lock(mutex_);
    if (_backgroundURLSession) return _backgroundURLSession;
  }
  std::weak_ptr<URLSessionDelegate> delegate = weak_from_this();
  if (delegate.expired())
    fatalError("A ZuNetworking with background transfers must be owned by a std::shared_ptr");
  auto configuration = URLSessionConfiguration::background(_identifier);
  configuration.sessionSendsLaunchEvents = true;
  configuration.isDiscretionary = true;
  URLSessionType type;
  {
    std::lock_guard lock(mutex_);
    type = _URLSessionType;
  }
  auto session = type.make(std::move(configuration), std::move(delegate));
  std::lock_guard lock(mutex_);
  _backgroundURLSession = session;
  return session;
}

bool ZuNetworking::isTaskPending(const URL& url) const {
  std::lock_guard lock(mutex_);
  for (const auto& [identifier, entry] : _pendingTaksDictionary) {
    if (entry.first->originalRequest().url == url) return true;
  }
  return false;
}

void ZuNetworking::setBackgroundCompletionHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  backgroundCompletionHandler_ = std::move(handler);
}

std::function<void()> ZuNetworking::backgroundCompletionHandler() const {
  std::lock_guard lock(mutex_);
  return backgroundCompletionHandler_;
}

// ---- Background session delegate ----

std::optional<ZuNetworking::_PendingTask> ZuNetworking::takePending(const URLSessionTask& task) {
  std::lock_guard lock(mutex_);
  auto it = _pendingTaksDictionary.find(task.taskIdentifier());
  if (it == _pendingTaksDictionary.end()) return std::nullopt;
  auto pending = std::move(it->second.second);
  _pendingTaksDictionary.erase(it);
  return pending;
}

void ZuNetworking::didReceive(URLSession&, URLSessionTask& dataTask, const Data& data) {
  std::lock_guard lock(mutex_);
  auto it = _pendingTaksDictionary.find(dataTask.taskIdentifier());
  if (it == _pendingTaksDictionary.end()) return;
  auto& gathered = it->second.second.data;
  if (!gathered) gathered.emplace();
  gathered->insert(gathered->end(), data.begin(), data.end());
}

void ZuNetworking::didFinishDownloadingTo(URLSession&, URLSessionTask& downloadTask, const URL& location) {
  auto pending = takePending(downloadTask);
  if (!pending) return;
  _process(downloadTask.response(), location, std::nullopt,
           std::get<DownloadCompletion>(pending->completion));
}

void ZuNetworking::didCompleteWithError(URLSession&, URLSessionTask& task,
                                        const std::optional<Error>& error) {
  auto pending = takePending(task);
  if (!pending) return;
  if (const auto* download = std::get_if<DownloadCompletion>(&pending->completion)) {
    return _process(task.response(), std::nullopt, error, *download);
  }
  _process(task.response(), pending->data, error, pending->acceptEmptyResponse,
           std::get<JSONCompletion>(pending->completion));
}

void ZuNetworking::urlSessionDidFinishEvents(URLSession&) {
  if (auto handler = backgroundCompletionHandler()) DispatchQueue::main().async(std::move(handler));
}

}  // namespace zu
