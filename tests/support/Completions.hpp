#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zutest {

/// Counts calls from any thread and lets a test wait, with a bound, until enough have arrived.
class CallCounter {
 public:
  // Notifies under the lock: a waiter that sees its count may destroy the counter as soon as it is released.
  void called() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  /// Whether `expected` calls arrived within `limit`: a bound that only a hang reaches, even when loaded.
  bool waitFor(int expected, std::chrono::seconds limit = std::chrono::seconds(120)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count_ >= expected; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

}  // namespace zutest
