// The review side of the screen: the video player, the photo on screen, the time label and deletion.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <typeinfo>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewController.hpp"
#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace zu {

using Controller = KivMediaCaptureAndPlayViewController;

bool Controller::_prepareForPlayback() {
  if (!_fileURL) return false;
  // Observed before the item is made, so that a file that fails at once is seen too.
  _player->setEndOfItemHandler(_onMain([this] { _playerItemDidPlayToEnd(); }));
  _player->setItemFailureHandler(_onMain([this](const Error& error) { _playerItemDidFail(error); }));
  _player->replaceCurrentItem(_fileURL);
  return true;
}

void Controller::_insertPlayerLayer() {
  _playerLayer = VideoLayer{.frame = {}, .backgroundColor = Color::withRGBA(0x000000FF)};
  _mediaPreviewDidChange();
}

void Controller::_playback() {
  if (!_player->hasCurrentItem()) return;
  _player->play();
  _update(_UIState::playing, true);
  _scheduleTimeDisplayTimer([this] { return _player->currentTime(); });
}

void Controller::_playerItemDidPlayToEnd() {
  _update(_UIState::ended, true);
  _invalidateTimeDisplayTimer();
  _updateTimeLabel(_player->currentTime());
}

void Controller::_playerItemDidFail(const Error& error) {
  ZuLogger::log(
      "Cannot play " + (_fileURL ? _fileURL->path() : std::string()) + ": " + error.localizedDescription(),
      &typeid(Controller), ZuLogger::LogLevel::error);
  _removePlayerItem();
  _update(_UIState::readyToCapture, true);
}

bool Controller::_insertImageView() {
  if (!_fileURL) return false;
  const auto bytes = ZuFileManager::contents(_fileURL->path());
  if (!bytes) return false;
  auto image = _imageFromData(*bytes);
  if (!image) return false;
  _photoImageView.emplace();
  _photoImageView->image = std::move(*image);
  _photoImageView->backgroundColor = Color::withRGBA(0x000000FF);
  _mediaPreviewView.addSubview(*_photoImageView);
  _photoImageView->constrainToSuperview();
  _mediaPreviewDidChange();
  return true;
}

void Controller::_removePlayerLayerAndImageView() {
  _playerLayer.reset();
  if (_photoImageView) {
    _photoImageView->unconstrainFromSuperview();
    _photoImageView.reset();
  }
  _mediaPreviewDidChange();
}

void Controller::_updateTimeLabel(double seconds) {
  if (!std::isfinite(seconds)) return;
  // Before the start shows as zero; hours stop where the label's integers do.
  const double t = std::max(seconds, 0.0);
  const auto hours = static_cast<int>(std::min(std::trunc(t / 3600), static_cast<double>(INT_MAX)));
  const auto minutes = static_cast<int>(std::fmod(t, 3600) / 60);
  const auto wholeSeconds = static_cast<int>(std::fmod(t, 60));
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%02i:%02i:%02i", hours, minutes, wholeSeconds));
  _timeLabel.text = text;
  _controlsDidChange(false);
}

void Controller::_scheduleTimeDisplayTimer(std::function<double()> time) {
  _invalidateTimeDisplayTimer();
  _timeDisplayTimer = _timerSource->scheduledRepeatingTimer(
      _Const::Values::timeDisplayTimerInterval, [this, time = std::move(time)] { _updateTimeLabel(time()); });
}

void Controller::_invalidateTimeDisplayTimer() {
  if (!_timeDisplayTimer) return;
  _timeDisplayTimer->invalidate();
  _timeDisplayTimer.reset();
}

bool Controller::_canDeleteFile(const std::optional<URL>& at) {
  if (!at) return false;
  const auto [entry, isNew] = _fileDeletionCache.try_emplace(at->absoluteString(), false);
  if (isNew) entry->second = _delegate.mediaCaptureAndPlayViewControllerCanDeleteFileAt(*this, *at);
  return entry->second;
}

void Controller::_deleteCurrentFile() {
  if (!_fileURL) return;
  const URL url = *_fileURL;
  static_cast<void>(ZuFileManager::removeItem(url));  // a file that is already gone is no reason to stop
  _delegate.mediaCaptureAndPlayViewControllerDidDeleteFileAt(*this, url);
  _removePlayerItem();
}

void Controller::_removePlayerItem() {
  _invalidateTimeDisplayTimer();
  _player->setEndOfItemHandler(nullptr);
  _player->setItemFailureHandler(nullptr);
  _player->replaceCurrentItem(std::nullopt);
}

}  // namespace zu
