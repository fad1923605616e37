#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"
#include "ZuNetworking/URLRequest.hpp"
#include "ZuNetworking/URLSession.hpp"
#include "ZuNetworking/ZuError.hpp"

namespace zu {

/**
 * The SDK's HTTPS client: builds requests (authorisation, content type, query or JSON body, 60-second idle
 * time-out), sends them, judges the answers and reports failures as `ZuError` values (transport failures
 * pass through unchanged). Requests and answers are logged at debug level, the "Authorization" header never.
 *
 * Completions of ordinary requests and foreground transfers run on the shared session's worker thread;
 * completions of background transfers on the background session's worker thread. Each runs exactly once.
 * A failed precondition (a request that cannot be built) calls back at once, before the call returns.
 *
 * Background transfers need the object to be owned by a `std::shared_ptr` (the session holds it weakly as
 * its delegate). Completions do not keep the object alive.
 *
 * @par Thread Safety
 * All operations may be called from any thread; the pending-transfer table and the settings are guarded by
 * a mutex that is never held while a completion runs.
 */
class ZuNetworking : public URLSessionDelegate, public std::enable_shared_from_this<ZuNetworking> {
 public:
  using Headers = std::map<std::string, std::string>;

  /**
   * The longest answer, in bytes, that is read as JSON: 4 MiB. A report with its files and metadata is a few
   * KiB, so this leaves the service ample room while bounding what a broken or hostile server can make the
   * SDK hold: a parsed answer takes several times its text in memory. A longer answer fails with
   * `invalidResponseData`, and its transfer stops one byte past the bound instead of buffering the rest.
   */
  static constexpr std::size_t maximumJSONResponseLength = std::size_t{4} << 20;
  using JSONCompletion = std::function<void(std::optional<AnyCodable> payload, std::optional<Error> error)>;
  using DictionaryCompletion =
      std::function<void(std::optional<AnyCodable::Dictionary> payload, std::optional<Error> error)>;
  using ResultsArrayCompletion = std::function<void(
      std::optional<std::vector<AnyCodable::Dictionary>> results, std::optional<Error> error)>;
  using DownloadCompletion = std::function<void(std::optional<URL> location, std::optional<Error> error)>;

  /// The "session class": where the shared session comes from and how background sessions are made.
  struct URLSessionType {
    std::function<std::shared_ptr<URLSession>()> sharedSession;
    std::function<std::shared_ptr<URLSession>(URLSessionConfiguration, std::weak_ptr<URLSessionDelegate>)>
        make;

    /// The libcurl sessions (`URLSession::shared()` and `URLSession::make`).
    static URLSessionType standard();
    /// libcurl sessions that trust the authorities in `certificateAuthorityFile` (PEM) besides the system's:
    /// a shared session of the type's own (made on first use, one for every copy of the type) and sessions
    /// made with that file in their configuration.
    static URLSessionType trusting(std::string certificateAuthorityFile);
  };

  /// What the table keeps for a background transfer until its completion runs.
  struct _PendingTask {
    /// The caller's completion, whose shape depends on the kind of transfer.
    std::variant<JSONCompletion, DownloadCompletion> completion;
    std::optional<Data> data;
    bool acceptEmptyResponse = false;
  };

  ZuNetworking(std::optional<std::string> authToken, std::string identifier);
  ~ZuNetworking() override;
  ZuNetworking(const ZuNetworking&) = delete;
  ZuNetworking& operator=(const ZuNetworking&) = delete;

  /// Replaces the session class; takes effect for sessions not made yet.
  void set_URLSessionType(URLSessionType type);

  /**
   * Sends a request with content type "application/json" as a data task on the shared session and judges the
   * answer. Returns the started task, or null when the request could not be built (the completion has then
   * already received the error).
   */
  std::shared_ptr<URLSessionTask> sendRequest(const URL& forURL, const std::string& method,
                                              const Headers& extraHeaders,
                                              const std::optional<AnyCodable>& body, bool acceptEmptyResponse,
                                              JSONCompletion completion);
  /// `sendRequest` accepting an empty answer (the completion then gets neither payload nor error).
  std::shared_ptr<URLSessionTask> sendRequestAllowEmptyResponse(const URL& forURL, const std::string& method,
                                                                const Headers& extraHeaders,
                                                                const std::optional<AnyCodable>& body,
                                                                JSONCompletion completion);
  /// `sendRequest` that requires a JSON object; anything else is `invalidResponseData`.
  std::shared_ptr<URLSessionTask> sendRequestWithDictionaryResponse(const URL& forURL,
                                                                    const std::string& method,
                                                                    const Headers& extraHeaders,
                                                                    const std::optional<AnyCodable>& body,
                                                                    DictionaryCompletion completion);
  /// Declared for completeness but unavailable: calling it stops the program.
  [[noreturn]] std::shared_ptr<URLSessionTask> sendRequestWithResultsArrayInDictionaryResponse(
      const URL& forURL, const std::string& method, const Headers& extraHeaders,
      const std::optional<AnyCodable>& body, const std::string& resultsKey,
      ResultsArrayCompletion completion);

  /**
   * Uploads the file at `fileURL` (streamed), with "Content-Disposition: attachment; filename=<its name>".
   * In the background the transfer runs on the background session and is recorded as pending until its
   * completion runs. An empty answer is accepted. `progress`, when given, follows the bytes sent (see
   * `URLSessionTask::setProgressHandler`). Null when the request could not be built.
   */
  std::shared_ptr<URLSessionTask> uploadRequest(const URL& forURL, bool inBackground,
                                                const std::string& method, const std::string& contentType,
                                                const Headers& extraHeaders, const URL& fileURL,
                                                JSONCompletion completion,
                                                URLSessionTask::ProgressHandler progress = {});
  /**
   * Downloads into a temporary file whose URL the completion receives; the file is removed when the
   * completion returns, so move or copy it there. A status outside 200-299 is an
   * `unsuccesfullHTTPResponseCode` error whose description quotes a small JSON error answer. `progress`,
   * when given, follows the bytes received.
   */
  std::shared_ptr<URLSessionTask> downloadRequest(const URL& forURL, bool inBackground,
                                                  const std::string& method, const Headers& extraHeaders,
                                                  DownloadCompletion completion,
                                                  URLSessionTask::ProgressHandler progress = {});

  /// Whether a background transfer whose original request is for `url` has not completed yet.
  bool isTaskPending(const URL& url) const;

  /// Called on the main queue once the background session has delivered the events of an earlier process.
  void setBackgroundCompletionHandler(std::function<void()> handler);
  std::function<void()> backgroundCompletionHandler() const;

  /// The background session (made on first use), so that a relaunched host can collect journalled events.
  std::shared_ptr<URLSession> createBackgroundURLSession();

  /// Builds a request (query items for "GET"/"DELETE", headers, JSON body); fails with `invalidPayload`.
  Result<URLRequest> _request(const URL& forURL, const std::string& method,
                              const std::optional<AnyCodable>& body, const std::string& contentType,
                              const Headers& extraHeaders) const;
  /// Judges an answer; `completion` runs exactly once, on the calling thread.
  static void _process(const std::optional<HTTPURLResponse>& response, const std::optional<Data>& withData,
                       const std::optional<Error>& error, bool acceptEmptyResponsePayload,
                       const JSONCompletion& completion);
  /// Judges a download; `completion` runs exactly once, on the calling thread.
  static void _process(const std::optional<HTTPURLResponse>& downloadResponse,
                       const std::optional<URL>& withURL, const std::optional<Error>& error,
                       const DownloadCompletion& completion);
  /// The JSON object or array in `data`; `emptyResponseData`, the parser's error or `invalidResponseData`.
  static Result<AnyCodable> _payload(const std::optional<Data>& data);
  /// A readable text of an error answer's body, nothing when it is not JSON.
  static std::optional<std::string> _errorString(const std::optional<Data>& data);
  static bool _isHTTPStatusCode2XX(const HTTPURLResponse& response);
  static ZuError _statusCodeError(const HTTPURLResponse& forResponse, std::optional<std::string> description);

  // Background session delegate.
  void didReceive(URLSession& session, URLSessionTask& dataTask, const Data& data) override;
  void didFinishDownloadingTo(URLSession& session, URLSessionTask& downloadTask,
                              const URL& location) override;
  void didCompleteWithError(URLSession& session, URLSessionTask& task,
                            const std::optional<Error>& error) override;
  void urlSessionDidFinishEvents(URLSession& forBackgroundURLSession) override;

 private:
  // The task starters; `progress` is handed to the task before it starts.
  std::shared_ptr<URLSessionTask> _upload(const URLRequest& request, const URL& fileUrl,
                                          JSONCompletion completion,
                                          URLSessionTask::ProgressHandler progress);
  std::shared_ptr<URLSessionTask> _uploadInBackground(const URLRequest& request, const URL& fileUrl,
                                                      bool acceptEmptyResponse, JSONCompletion completion,
                                                      URLSessionTask::ProgressHandler progress);
  std::shared_ptr<URLSessionTask> _download(const URLRequest& request, DownloadCompletion completion,
                                            URLSessionTask::ProgressHandler progress);
  std::shared_ptr<URLSessionTask> _downloadInBackground(const URLRequest& request,
                                                        DownloadCompletion completion,
                                                        URLSessionTask::ProgressHandler progress);

  std::shared_ptr<URLSession> sharedSession() const;
  std::shared_ptr<URLSession> backgroundSession();
  std::optional<_PendingTask> takePending(const URLSessionTask& task);

  const std::optional<std::string> _serverAuthToken;
  const std::string _identifier;

  mutable std::mutex mutex_;
  std::mutex backgroundSessionMutex_;
  URLSessionType _URLSessionType;
  std::shared_ptr<URLSession> _backgroundURLSession;
  // Keyed by task identifier; the task is kept for `isTaskPending` and so that it outlives its callbacks.
  std::map<std::uint64_t, std::pair<std::shared_ptr<URLSessionTask>, _PendingTask>> _pendingTaksDictionary;
  std::function<void()> backgroundCompletionHandler_;
};

}  // namespace zu
