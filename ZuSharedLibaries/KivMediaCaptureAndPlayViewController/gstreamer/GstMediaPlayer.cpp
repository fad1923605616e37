#include "KivMediaCaptureAndPlayViewController/gstreamer/GstMediaPlayer.hpp"

#include <limits>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/PlayerItem.hpp"

namespace zu {

GstMediaPlayer::GstMediaPlayer() = default;

GstMediaPlayer::~GstMediaPlayer() { replaceCurrentItem(std::nullopt); }

void GstMediaPlayer::replaceCurrentItem(const std::optional<URL>& url) {
  std::shared_ptr<detail::PlayerItem> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(item_, nullptr);
  }
  // Stopped and its bus thread joined before the next item starts, so it reports nothing more.
  previous.reset();
  if (!url) return;
  auto made = detail::PlayerItem::make(
      url->path(),
      {.frame = [this](const Image& frame) { notify(&GstMediaPlayer::frameHandler_, frame); },
       .end = [this] { notify(&GstMediaPlayer::endHandler_); },
       .failure = [this](const Error& error) { notify(&GstMediaPlayer::failureHandler_, error); }});
  if (!made) {
    notify(&GstMediaPlayer::failureHandler_, made.error());
    return;
  }
  std::lock_guard lock(mutex_);
  item_ = std::move(*made);
}

std::shared_ptr<detail::PlayerItem> GstMediaPlayer::item() const {
  std::lock_guard lock(mutex_);
  return item_;
}

bool GstMediaPlayer::hasCurrentItem() const { return item() != nullptr; }

void GstMediaPlayer::play() {
  if (const auto current = item()) current->play();
}

void GstMediaPlayer::pause() {
  if (const auto current = item()) current->pause();
}

void GstMediaPlayer::seek(double toSeconds) {
  if (const auto current = item()) current->seek(toSeconds);
}

double GstMediaPlayer::currentTime() const {
  const auto current = item();
  return current ? current->currentTime() : std::numeric_limits<double>::quiet_NaN();
}

void GstMediaPlayer::setFrameHandler(FrameHandler handler) { replace(frameHandler_, std::move(handler)); }

void GstMediaPlayer::setEndOfItemHandler(EndHandler handler) { replace(endHandler_, std::move(handler)); }

void GstMediaPlayer::setItemFailureHandler(FailureHandler handler) {
  replace(failureHandler_, std::move(handler));
}

}  // namespace zu
