#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "Context.hpp"
#include "ZuFoundation/Error.hpp"

namespace kivcli {

/**
 * Waits, on the command's thread, for the completions of the SDK operations the command started. Every
 * completion and every progress report is a sign of life; when none comes for the command's time-out, the
 * command gives up (exit 1). A completion that arrives after that does nothing: it may name the command's
 * locals, which are gone.
 *
 * @par Thread Safety
 * Tracked completions and `touch` may run on any thread; wrapped completions run under the waiter's lock,
 * one at a time.
 */
class Waiter {
 public:
  /// `what` names the operation in the time-out's message ("send report Kitchen").
  Waiter(const Context& context, std::string what);
  ~Waiter();
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  /// `completion`, counted: `wait` returns once every tracked completion has run.
  template <class Completion>
  auto track(Completion completion) {
    {
      std::lock_guard lock(state_->mutex);
      ++state_->running;
    }
    return [state = state_, completion = std::move(completion)](auto... arguments) mutable {
      std::lock_guard lock(state->mutex);
      if (state->abandoned) return;
      completion(std::move(arguments)...);
      --state->running;
      state->lastSign = Clock::now();
      state->changed.notify_all();
    };
  }
  /// Records a sign of life from a running operation (a progress report); may outlive the waiter.
  std::function<void()> signOfLife() const;
  /// Returns once every tracked completion has run; fails after the time-out without a sign of life.
  void wait();

 private:
  using Clock = std::chrono::steady_clock;
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    bool abandoned = false;
    Clock::time_point lastSign = Clock::now();
  };

  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::chrono::duration<double> timeout_;
  std::string what_;
};

/// The operation `what` failed with `error`: fails with a line that says why and what to do.
[[noreturn]] void failWith(const std::string& what, const zu::Error& error);

/**
 * Starts one operation with a completion of shape (Result, optional error), waits for it and answers the
 * result; fails when the operation reports an error or gives no sign of life in time.
 */
template <class Result, class Start>
Result awaitOne(const Context& context, const std::string& what, Start start) {
  Waiter waiter(context, what);
  Result result{};
  std::optional<zu::Error> failure;
  start(waiter.track([&](Result value, std::optional<zu::Error> error) {
    result = std::move(value);
    failure = std::move(error);
  }));
  waiter.wait();
  if (failure) failWith(what, *failure);
  return result;
}

}  // namespace kivcli
