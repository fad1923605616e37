#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ZuNetworking/URLSession.hpp"
#include "ZuNetworking/detail/CurlHandles.hpp"
#include "ZuNetworking/detail/Journal.hpp"

namespace zu::detail {

class Engine;
struct Transfer;

/// A task of a curl session. Until `resume()` it holds its prepared transfer; then the engine does.
class CurlTask final : public URLSessionTask, public std::enable_shared_from_this<CurlTask> {
 public:
  CurlTask(std::uint64_t identifier, URLRequest request, std::weak_ptr<Engine> engine);
  ~CurlTask() override;

  void resume() override;
  void cancel() override;

 private:
  friend class Engine;
  std::unique_ptr<Transfer> takePrepared();

  std::mutex mutex_;
  std::unique_ptr<Transfer> prepared_;
  std::weak_ptr<Engine> engine_;
};

/**
 * The worker behind a curl session: one thread driving one curl multi handle. Other threads hand it work as
 * commands, woken with `curl_multi_wakeup`; every curl call on the multi handle and every completion happens
 * on the worker thread.
 *
 * @par Thread Safety
 * `makeTask`, `submit`, `cancel` and `stop` may be called from any thread.
 */
class Engine : public std::enable_shared_from_this<Engine> {
 public:
  enum class Kind { data, upload, download };

  Engine(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate);
  ~Engine();

  /// Starts the worker for `owner` (the session passed to delegate callbacks) and takes over the transfers
  /// that the journal holds from an earlier process.
  void start(URLSession* owner);
  /// Stops the worker. Transfers with completions still running complete as cancelled; journalled ones are
  /// left to a later session. Called from the worker itself (a callback that drops the last session
  /// reference), it returns at once, the worker stops after the callback and is joined at exit. A worker
  /// still running when the process exits is stopped then.
  void stop();

  const URLSessionConfiguration& configuration() const { return configuration_; }
  std::shared_ptr<URLSessionTask> makeTask(Kind kind, URLRequest request,
                                           const std::optional<URL>& uploadFile,
                                           URLSession::DataCompletion dataCompletion,
                                           URLSession::DownloadCompletion downloadCompletion);

  void submit(std::unique_ptr<Transfer> transfer);
  void cancel(std::uint64_t taskIdentifier);

  /// Called by the write callback of tasks that report to the delegate.
  void deliverData(Transfer& transfer, const char* bytes, std::size_t size);

 private:
  std::unique_ptr<Transfer> prepare(const std::shared_ptr<CurlTask>& task, Kind kind,
                                    const std::optional<URL>& uploadFile);
  void post(std::function<void()> command);
  void run();
  void begin(std::unique_ptr<Transfer> transfer);
  void collectFinished();
  /// Gives up the transfers that have been idle for their whole time-out; answers how long the worker may
  /// wait before the next could be.
  std::chrono::milliseconds expireIdle();
  void finish(std::unique_ptr<Transfer> transfer, std::optional<Error> error);
  void deliverToDelegate(Transfer& transfer, const std::optional<Error>& error);
  void abandon(std::unique_ptr<Transfer> transfer);
  bool stopping();

  const URLSessionConfiguration configuration_;
  const std::weak_ptr<URLSessionDelegate> delegate_;
  const std::optional<Journal> journal_;
  std::atomic<std::uint64_t> nextIdentifier_{1};
  CurlMulti multi_;

  std::mutex mutex_;
  std::vector<std::function<void()>> commands_;
  bool stopping_ = false;
  // Taken by the first stop (its session's, or the exit's), which joins or retires it.
  std::thread thread_;

  // Worker thread only.
  URLSession* owner_ = nullptr;
  std::map<CURL*, std::unique_ptr<Transfer>> active_;
  std::size_t replaysRemaining_ = 0;
};

}  // namespace zu::detail
