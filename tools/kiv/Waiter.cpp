#include "Waiter.hpp"

#include <cmath>

#include "ZuNetworking/ZuError.hpp"

namespace kivcli {

Waiter::Waiter(const Context& context, std::string what)
    : timeout_(context.timeout), what_(std::move(what)) {}

Waiter::~Waiter() {
  std::lock_guard lock(state_->mutex);
  state_->abandoned = true;
}

std::function<void()> Waiter::signOfLife() const {
  return [state = state_] {
    std::lock_guard lock(state->mutex);
    state->lastSign = Clock::now();
  };
}

void Waiter::wait() {
  const auto timeout = std::chrono::duration_cast<Clock::duration>(timeout_);
  std::unique_lock lock(state_->mutex);
  while (state_->running > 0) {
    const auto deadline = state_->lastSign + timeout;
    if (Clock::now() >= deadline) {
      state_->abandoned = true;
      fail(what_ + ": no answer from the service for " + std::to_string(std::lround(timeout_.count())) +
           " s; check that it is running (see --service) or allow longer with --timeout");
    }
    state_->changed.wait_until(lock, deadline);
  }
}

void failWith(const std::string& what, const zu::Error& error) {
  std::string hint;
  if (error.domain() == zu::Error::urlDomain) {
    hint = "; check that the service is running and reachable (see --service and --ca)";
  } else if (error.zuError()) {
    hint = "; the service refused or answered something unexpected (run with -vv for details)";
  }
  fail(what + " failed: " + error.localizedDescription() + hint);
}

}  // namespace kivcli
