#pragma once

#include <functional>
#include <optional>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/URL.hpp"
#include "ZuImage/Image.hpp"

namespace zu {

/**
 * Plays one video file at a time for the capture screen's review: its current item is replaced per file.
 *
 * @par Thread Safety
 * Operations are called on the main thread and must not block. Handlers may be called on any thread (the
 * screen moves them onto the main queue). Once a setter returns, the handler it replaced is not called
 * again.
 */
class MediaPlayer {
 public:
  using FrameHandler = std::function<void(const Image& frame)>;
  using EndHandler = std::function<void()>;
  using FailureHandler = std::function<void(const Error& error)>;

  virtual ~MediaPlayer() = default;

  /// Makes the file at `url` the current item, paused at its start; an empty optional removes the item.
  virtual void replaceCurrentItem(const std::optional<URL>& url) = 0;
  virtual bool hasCurrentItem() const = 0;
  virtual void play() = 0;
  virtual void pause() = 0;
  virtual void seek(double toSeconds) = 0;
  /// The playing position in seconds; not a finite number when unknown.
  virtual double currentTime() const = 0;

  /// Receives the frames to show: the first one of a new item, then each one while playing.
  virtual void setFrameHandler(FrameHandler handler) = 0;
  /// Called once when the current item has played to its end; an empty handler stops observing.
  virtual void setEndOfItemHandler(EndHandler handler) = 0;
  /// Called once when the current item cannot be played (a missing or broken file).
  virtual void setItemFailureHandler(FailureHandler handler) = 0;
};

}  // namespace zu
