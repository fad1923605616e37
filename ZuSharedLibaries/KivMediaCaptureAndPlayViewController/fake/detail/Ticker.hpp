#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zu::detail {

/// Calls a function on a thread of its own at a fixed rate until destroyed: the clock of the fake camera
/// and player.
class Ticker {
 public:
  Ticker(double ticksPerSecond, std::function<void()> tick)
      : interval_(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1 / ticksPerSecond))),
        tick_(std::move(tick)),
        thread_([this] { run(); }) {}
  ~Ticker() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wakeUp_.notify_one();
    thread_.join();
  }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  void run() {
    auto next = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (true) {
      next += interval_;
      if (wakeUp_.wait_until(lock, next, [this] { return stopping_; })) return;
      lock.unlock();
      tick_();
      lock.lock();
    }
  }

  const std::chrono::steady_clock::duration interval_;
  const std::function<void()> tick_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace zu::detail
