#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zu {

/**
 * A serial queue: tasks run one at a time, in the order they were posted, on the queue's own thread (started
 * on first use, joined when the queue is destroyed after its last task).
 *
 * `main()` is the process-wide queue that stands for the platform's main queue. A host with a UI loop
 * installs its own dispatcher once with `setMainDispatcher`, and main-queue tasks are then handed to it.
 *
 * @par Thread Safety
 * All operations may be called from any thread. `sync` and `drain` must not be called from the queue's own
 * thread (they would wait for themselves).
 */
class DispatchQueue {
 public:
  using Task = std::function<void()>;
  /// Takes a task and runs it later on the host's main thread.
  using Dispatcher = std::function<void(Task)>;

  explicit DispatchQueue(std::string label);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// The process-wide main queue.
  static DispatchQueue& main();
  /// Hands every later main-queue task to `dispatcher` (for example the host's GUI thread).
  static void setMainDispatcher(Dispatcher dispatcher);
  /// Whether a host has installed a dispatcher (screens that must run on the host's UI thread ask).
  static bool hasMainDispatcher();

  const std::string& label() const { return label_; }
  /// Posts `task`; it runs after every task posted before it.
  void async(Task task);
  /// Posts `task` and waits until it has run.
  void sync(const Task& task);
  /// Waits until every task posted before the call has run.
  void drain();

 private:
  void run();

  std::string label_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<Task> tasks_;
  Dispatcher dispatcher_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace zu
