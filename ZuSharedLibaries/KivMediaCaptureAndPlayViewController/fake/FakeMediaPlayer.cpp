#include "KivMediaCaptureAndPlayViewController/fake/FakeMediaPlayer.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/fake/TestPattern.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/detail/Ticker.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace zu {
namespace {

// The moving picture advances about 30 steps a second of play.
long frameNumberAt(double seconds) { return std::lround(seconds * 30); }

}  // namespace

FakeMediaPlayer::FakeMediaPlayer(Settings settings) : settings_(settings) {
  if (settings_.ticksPerSecond > 0) {
    ticker_ = std::make_unique<detail::Ticker>(settings_.ticksPerSecond,
                                               [this] { advance(1 / settings_.ticksPerSecond); });
  }
}

// The ticker goes first: its thread uses everything else.
FakeMediaPlayer::~FakeMediaPlayer() { ticker_.reset(); }

void FakeMediaPlayer::replaceCurrentItem(const std::optional<URL>& url) {
  const bool exists = url && ZuFileManager::fileExists(*url);
  {
    std::lock_guard lock(mutex_);
    item_ = exists ? url : std::nullopt;
    playing_ = false;
    time_ = 0;
  }
  if (exists) {
    deliverFrame(0);
  } else if (url) {
    std::lock_guard lock(handlerMutex_);
    if (failureHandler_) failureHandler_(Error::posix(ENOENT));
  }
}

bool FakeMediaPlayer::hasCurrentItem() const {
  std::lock_guard lock(mutex_);
  return item_.has_value();
}

void FakeMediaPlayer::play() {
  std::lock_guard lock(mutex_);
  playing_ = item_.has_value();
}

void FakeMediaPlayer::pause() {
  std::lock_guard lock(mutex_);
  playing_ = false;
}

void FakeMediaPlayer::seek(double toSeconds) {
  std::lock_guard lock(mutex_);
  time_ = std::clamp(toSeconds, 0.0, settings_.duration);
}

double FakeMediaPlayer::currentTime() const {
  std::lock_guard lock(mutex_);
  return time_;
}

void FakeMediaPlayer::setFrameHandler(FrameHandler handler) {
  std::lock_guard lock(handlerMutex_);
  frameHandler_ = std::move(handler);
}

void FakeMediaPlayer::setEndOfItemHandler(EndHandler handler) {
  std::lock_guard lock(handlerMutex_);
  endHandler_ = std::move(handler);
}

void FakeMediaPlayer::setItemFailureHandler(FailureHandler handler) {
  std::lock_guard lock(handlerMutex_);
  failureHandler_ = std::move(handler);
}

void FakeMediaPlayer::advance(double seconds) {
  bool reachedEnd = false;
  double time = 0;
  {
    std::lock_guard lock(mutex_);
    if (!playing_) return;
    time_ = std::min(time_ + seconds, settings_.duration);
    reachedEnd = time_ >= settings_.duration;
    playing_ = !reachedEnd;
    time = time_;
  }
  deliverFrame(frameNumberAt(time));
  if (!reachedEnd) return;
  std::lock_guard lock(handlerMutex_);
  if (endHandler_) endHandler_();
}

bool FakeMediaPlayer::isPlaying() const {
  std::lock_guard lock(mutex_);
  return playing_;
}

std::optional<URL> FakeMediaPlayer::currentItem() const {
  std::lock_guard lock(mutex_);
  return item_;
}

void FakeMediaPlayer::deliverFrame(long frameNumber) {
  const Image frame = testPatternImage(settings_.frameWidth, settings_.frameHeight, frameNumber, true);
  std::lock_guard lock(handlerMutex_);
  if (frameHandler_) frameHandler_(frame);
}

}  // namespace zu
