#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "KivMediaCaptureAndPlayViewController/core/MediaPlayer.hpp"

namespace zu {

namespace detail {
class Ticker;
}

/**
 * A player without a decoder, for running the capture screen anywhere and for tests. Any existing file
 * "plays" for `duration` seconds, showing a dimmed moving test picture; a missing file fails at once.
 *
 * With `ticksPerSecond` above 0 time advances by itself on a thread of its own while playing; at 0 tests
 * advance it with `advance`. Reaching the end pauses the player and calls the end-of-item handler once.
 *
 * @par Thread Safety
 * All operations may be called from any thread.
 */
class FakeMediaPlayer final : public MediaPlayer {
 public:
  struct Settings {
    double duration = 3;
    double ticksPerSecond = 0;
    int frameWidth = 640;
    int frameHeight = 360;
  };

  explicit FakeMediaPlayer(Settings settings);
  FakeMediaPlayer() : FakeMediaPlayer(Settings{}) {}
  ~FakeMediaPlayer() override;
  FakeMediaPlayer(const FakeMediaPlayer&) = delete;
  FakeMediaPlayer& operator=(const FakeMediaPlayer&) = delete;

  void replaceCurrentItem(const std::optional<URL>& url) override;
  bool hasCurrentItem() const override;
  void play() override;
  void pause() override;
  void seek(double toSeconds) override;
  double currentTime() const override;
  void setFrameHandler(FrameHandler handler) override;
  void setEndOfItemHandler(EndHandler handler) override;
  void setItemFailureHandler(FailureHandler handler) override;

  /// Plays on for `seconds` (when playing), up to the end.
  void advance(double seconds);
  bool isPlaying() const;
  /// The current item's URL.
  std::optional<URL> currentItem() const;

 private:
  void deliverFrame(long frameNumber);

  const Settings settings_;
  mutable std::mutex mutex_;
  std::optional<URL> item_;
  bool playing_ = false;
  double time_ = 0;
  /// Held while a handler runs, so that a replaced handler is never called after its setter returns.
  std::mutex handlerMutex_;
  FrameHandler frameHandler_;
  EndHandler endHandler_;
  FailureHandler failureHandler_;
  std::unique_ptr<detail::Ticker> ticker_;
};

}  // namespace zu
