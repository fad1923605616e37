#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/core/MediaPlayer.hpp"

namespace zu {

namespace detail {
class PlayerItem;
}

/**
 * The capture screen's video player on GStreamer: each item is a pipeline of its own that decodes the file,
 * hands its pictures to the frame handler (the first one as soon as the item is ready, then each one in
 * time while playing) and plays its sound on the default output (nowhere when there is none).
 *
 * A file that cannot be played (missing, not media, broken) fails the moment GStreamer finds out, through
 * the failure handler; the end of the item is reported once per pass through it.
 *
 * @par Thread Safety
 * As `MediaPlayer` says. Handlers run on GStreamer's threads.
 */
class GstMediaPlayer final : public MediaPlayer {
 public:
  GstMediaPlayer();
  ~GstMediaPlayer() override;
  GstMediaPlayer(const GstMediaPlayer&) = delete;
  GstMediaPlayer& operator=(const GstMediaPlayer&) = delete;

  void replaceCurrentItem(const std::optional<URL>& url) override;
  bool hasCurrentItem() const override;
  void play() override;
  void pause() override;
  void seek(double toSeconds) override;
  double currentTime() const override;
  void setFrameHandler(FrameHandler handler) override;
  void setEndOfItemHandler(EndHandler handler) override;
  void setItemFailureHandler(FailureHandler handler) override;

 private:
  std::shared_ptr<detail::PlayerItem> item() const;
  template <class Handler>
  void replace(Handler& handler, Handler replacement) {
    std::lock_guard lock(handlerMutex_);
    handler = std::move(replacement);
  }
  /// Calls the handler `member` with `arguments`, when there is one.
  template <class Handler, class... Arguments>
  void notify(Handler GstMediaPlayer::*member, const Arguments&... arguments) {
    std::lock_guard lock(handlerMutex_);
    if (this->*member) (this->*member)(arguments...);
  }

  mutable std::mutex mutex_;
  std::shared_ptr<detail::PlayerItem> item_;
  /// Held while a handler runs, so that a replaced handler is never called after its setter returns.
  std::mutex handlerMutex_;
  FrameHandler frameHandler_;
  EndHandler endHandler_;
  FailureHandler failureHandler_;
};

}  // namespace zu
