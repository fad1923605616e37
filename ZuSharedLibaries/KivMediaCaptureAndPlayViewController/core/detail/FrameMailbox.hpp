#pragma once

#include <mutex>
#include <optional>
#include <utility>

#include "ZuImage/Image.hpp"

namespace zu::detail {

/// Holds the newest frame between the thread that makes frames and the main thread that shows them.
class FrameMailbox {
 public:
  /// Keeps `frame` in place of any frame still waiting; true when none was waiting, so that the caller must
  /// post a hop to take it.
  bool put(Image frame) {
    std::lock_guard lock(mutex_);
    const bool wasEmpty = !frame_;
    frame_ = std::move(frame);
    return wasEmpty;
  }

  std::optional<Image> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(frame_, std::nullopt);
  }

 private:
  std::mutex mutex_;
  std::optional<Image> frame_;
};

}  // namespace zu::detail
