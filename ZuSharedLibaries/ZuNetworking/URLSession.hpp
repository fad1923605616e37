#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/URL.hpp"
#include "ZuNetworking/URLError.hpp"
#include "ZuNetworking/URLRequest.hpp"

namespace zu {

class URLSession;

/// How a session is made: the counterpart of the platform's `URLSessionConfiguration`.
struct URLSessionConfiguration {
  /// Set for background sessions: names the session and its journal of unfinished transfers.
  std::optional<std::string> identifier;
  /// Carried for callers that read them back: there is no system daemon to launch the application or to
  /// defer transfers, so a background session runs its transfers at once, in the process that made it.
  bool sessionSendsLaunchEvents = false;
  bool isDiscretionary = false;
  /// Connections opened to one host at a time; further transfers wait for a free one.
  long httpMaximumConnectionsPerHost = 6;
  /// A PEM file of certificate authorities trusted in addition to the system's; when unset, the process-wide
  /// `URLSession::setAdditionalCertificateAuthorityFile` applies. Verification itself is never switched off.
  std::optional<std::string> additionalCertificateAuthorityFile;

  static URLSessionConfiguration defaultConfiguration() { return {}; }
  /// A background configuration: transfers started on it outlive the process (see `URLSession`).
  static URLSessionConfiguration background(std::string withIdentifier);
};

/**
 * One request running (or waiting to run) on a session. Made suspended by the session; `resume()` starts it.
 *
 * @par Thread Safety
 * All operations may be called from any thread.
 */
class URLSessionTask {
 public:
  /// Bytes moved so far and bytes expected (`transferSizeUnknown` when the answer does not say).
  using ProgressHandler = std::function<void(std::int64_t done, std::int64_t expected)>;
  static constexpr std::int64_t transferSizeUnknown = -1;

  virtual ~URLSessionTask() = default;
  URLSessionTask(const URLSessionTask&) = delete;
  URLSessionTask& operator=(const URLSessionTask&) = delete;

  /// Unique within its session.
  std::uint64_t taskIdentifier() const { return taskIdentifier_; }
  const URLRequest& originalRequest() const { return originalRequest_; }
  /// The answer's head once it has arrived.
  std::optional<HTTPURLResponse> response() const;

  /// Starts a suspended task; does nothing to a task already started or cancelled.
  virtual void resume() = 0;
  /// Stops the task; it completes with NSURLErrorDomain -999 ("cancelled") unless it already completed.
  virtual void cancel() = 0;

  /**
   * Reports how the body moves (the request's for uploads, the answer's otherwise) on the session's worker
   * thread: a few times a second at most, and once more with the final count before the task completes. Set
   * it before `resume()`.
   */
  void setProgressHandler(ProgressHandler handler);
  ProgressHandler progressHandler() const;

 protected:
  URLSessionTask(std::uint64_t taskIdentifier, URLRequest originalRequest)
      : taskIdentifier_(taskIdentifier), originalRequest_(std::move(originalRequest)) {}
  void setResponse(HTTPURLResponse response);

 private:
  const std::uint64_t taskIdentifier_;
  const URLRequest originalRequest_;
  mutable std::mutex mutex_;
  std::optional<HTTPURLResponse> response_;
  ProgressHandler progressHandler_;
};

/**
 * Receives the events of tasks that were made without a completion (background transfers). Every callback
 * of one session arrives on that session's worker thread, one at a time. For each task: `didReceive` for each
 * piece of an answer's body (data and upload tasks), `didFinishDownloadingTo` once a download's file is
 * complete (the file is removed when the callback returns), then `didCompleteWithError` exactly once.
 */
class URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;
  virtual void didReceive(URLSession& session, URLSessionTask& dataTask, const Data& data);
  virtual void didFinishDownloadingTo(URLSession& session, URLSessionTask& downloadTask, const URL& location);
  virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                    const std::optional<Error>& error);
  /// A background session has delivered every event of the transfers it took over from an earlier process.
  virtual void urlSessionDidFinishEvents(URLSession& forBackgroundURLSession);
};

/**
 * Runs HTTP(S) requests, the counterpart of the platform's `URLSession`. The implementation behind
 * `shared()` and `make()` drives libcurl on one worker thread per session; connections are kept alive and
 * reused, and HTTP/2 is used where the server offers it. TLS certificates are always verified.
 *
 * Transport failures complete with domain "NSURLErrorDomain" and a `URLError` code: `timedOut` (-1001,
 * nothing moved for the request's `timeoutInterval`), `cannotFindHost` (-1003), `cannotConnectToHost`
 * (-1004), `networkConnectionLost` (-1005), `serverCertificateUntrusted` (-1202), `cancelled` (-999),
 * `fileDoesNotExist` (-1100, the upload's file). An HTTP status is never an error here.
 *
 * A background session (configuration with an identifier) keeps a journal of its unfinished upload and
 * download tasks under the application data folder. When a later process makes a session with the same
 * identifier, the session starts those transfers again, delivers their events to its delegate and then calls
 * `urlSessionDidFinishEvents`.
 *
 * Subclass it to replace the transport (tests use a fake).
 *
 * @par Thread Safety
 * All operations may be called from any thread. Completions of a session run on its worker thread.
 */
class URLSession {
 public:
  /// Data and upload tasks: the body (absent on failure), the answer's head, the transport error.
  using DataCompletion = std::function<void(std::optional<Data> data, std::optional<HTTPURLResponse> response,
                                            std::optional<Error>)>;
  /// Download tasks: the temporary file (removed when the completion returns), the head, the error.
  using DownloadCompletion = std::function<void(
      std::optional<URL> location, std::optional<HTTPURLResponse> response, std::optional<Error>)>;

  virtual ~URLSession() = default;

  /// The process-wide session for tasks with completions.
  static std::shared_ptr<URLSession> shared();
  /// A session of its own; tasks made without a completion report to `delegate` (held weakly).
  static std::shared_ptr<URLSession> make(URLSessionConfiguration configuration,
                                          std::weak_ptr<URLSessionDelegate> delegate = {});
  /// Certificate authorities (a PEM file) that every session trusts besides the system's, unless its
  /// configuration names its own; nothing restores the system's alone. Applies to transfers started later.
  static void setAdditionalCertificateAuthorityFile(std::optional<std::string> path);
  static std::optional<std::string> additionalCertificateAuthorityFile();

  virtual const URLSessionConfiguration& configuration() const = 0;

  /**
   * A suspended task for `request` with its `httpBody`. The completion, or the delegate when the completion
   * is empty, is called exactly once on the session's worker thread.
   */
  virtual std::shared_ptr<URLSessionTask> dataTask(URLRequest request, DataCompletion completion) = 0;
  /// A suspended task that sends the file at `fromFile` as the body, streamed, never read whole.
  virtual std::shared_ptr<URLSessionTask> uploadTask(URLRequest request, URL fromFile,
                                                     DataCompletion completion) = 0;
  /// A suspended task that streams the answer's body into a temporary file (mode 0600).
  virtual std::shared_ptr<URLSessionTask> downloadTask(URLRequest request, DownloadCompletion completion) = 0;
};

}  // namespace zu
