#pragma once

#include <functional>
#include <memory>

namespace zu {

/// A scheduled repeating timer. Destroying it invalidates it.
class Timer {
 public:
  virtual ~Timer() = default;
  /// Stops the timer: its block is not called again.
  virtual void invalidate() = 0;
};

/**
 * Makes the repeating timers of the capture screen (the time label's refresh). Blocks run on the main
 * thread.
 */
class TimerSource {
 public:
  virtual ~TimerSource() = default;
  /// A timer that calls `block` every `interval` seconds, first after one interval, until invalidated.
  virtual std::unique_ptr<Timer> scheduledRepeatingTimer(double interval, std::function<void()> block) = 0;
};

}  // namespace zu
