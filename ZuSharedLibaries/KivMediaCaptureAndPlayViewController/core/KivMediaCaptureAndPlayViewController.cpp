// The screen's state machine: lifecycle, states, bottom panel, buttons and the media type.
#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewController.hpp"

#include <string>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp"
#include "KivMediaCaptureAndPlayViewController/core/detail/FrameMailbox.hpp"
#include "ZuFoundation/FatalError.hpp"
#include "ZuFoundation/UniformType.hpp"

namespace zu {
namespace {

using Controller = KivMediaCaptureAndPlayViewController;
using ControlType = BottomControlsVisibility::ControlType;
using Height = BottomControlsVisibility::_Const::BottomControlsHeightConstraint;
using Distance = BottomControlsVisibility::_Const::BottomControlsSideButtonsBottomConstraint;

template <class Part>
Part required(Part part, std::string_view name) {
  if (!part) fatalError("The capture screen needs " + std::string(name));
  return part;
}

// Semi-transparent black behind white controls keeps them legible over a bright preview.
constexpr Color kControlsBackground = Color::withRGBA(0x00000080);

}  // namespace

std::string Controller::imageName(_ControlButtonType type) {
  switch (type) {
    case _ControlButtonType::record:
      return "GlimmoRecordButton";
    case _ControlButtonType::stop:
      return "GlimmoStopButton";
    case _ControlButtonType::play:
    case _ControlButtonType::replay:  // replaying shows the play image on purpose
      return "GlimmoPlayButton";
    case _ControlButtonType::pause:
      return "GlimmoPauseButton";
    case _ControlButtonType::photo:
      return "GlimmoPhotoButton";
  }
  fatalError("Unknown control button type " + std::to_string(rawValue(type)));
}

std::string Controller::flashImageName(bool flashOn) {
  return flashOn ? "GlimmoFlashButton" : "GlimmoFlashOffButton";
}

Controller::KivMediaCaptureAndPlayViewController(KivMediaCaptureAndPlayViewControllerDelegate& delegate,
                                                 URL directory, std::optional<URL> fileURL, bool autoplay,
                                                 CapturePlatform platform)
    : _delegate(delegate),
      _captureDevice(required(std::move(platform.captureDevice), "a capture device")),
      _player(required(std::move(platform.player), "a media player")),
      _timerSource(required(std::move(platform.timerSource), "a timer source")),
      _imageFromData(required(std::move(platform.imageFromData), "an image decoder")),
      _mainQueue(std::move(platform.mainQueue)),
      _sessionQueue(std::move(platform.sessionQueue)),
      _now(platform.now ? std::move(platform.now) : Date::now),
      _autoplay(autoplay),
      _fileURL(std::move(fileURL)),
      _mediaDirectory(std::move(directory)) {
  if (!_mainQueue)
    _mainQueue = [](std::function<void()> task) { DispatchQueue::main().async(std::move(task)); };
  if (!_sessionQueue) {
    _ownSessionQueue = std::make_unique<DispatchQueue>("com.zumbrel.capture-session");
    _sessionQueue = [queue = _ownSessionQueue.get()](std::function<void()> task) {
      queue->async(std::move(task));
    };
  }
  _player->setFrameHandler(_frameHandler([this](const Image& frame) {
    if (!_playerLayer) return;
    _playerLayer->frame = frame;
    _mediaPreviewDidChange();
  }));

  // What a storyboard would hold: the bottom controls start hidden, as the empty visible set says.
  for (const ControlType control :
       {ControlType::trash, ControlType::confirm, ControlType::segmented, ControlType::main}) {
    _controlView(control).isHidden = true;
  }
  _mediaPreviewView.backgroundColor = Color::withRGBA(0x000000FF);
  _bottomControlsView.backgroundColor = kControlsBackground;
  _timeLabel.backgroundColor = kControlsBackground;
  _timeLabel.text = "00:00:00";
  _videoPhotoSegmentedControl.segmentTitles = {"Video", "Photo"};
  _bottomControlsHeightConstraint = {.firstItem = &_bottomControlsView,
                                     .firstAttribute = LayoutAttribute::height,
                                     .constant = Height::hidden,
                                     .isActive = true};
  // The panel's bottom lies this far below the side buttons' bottoms.
  _bottomControlsSideButtonsBottomtConstraint = {.firstItem = &_bottomControlsView,
                                                 .firstAttribute = LayoutAttribute::bottom,
                                                 .secondItem = &_trashButton,
                                                 .secondAttribute = LayoutAttribute::bottom,
                                                 .constant = Distance::onlySideButtons,
                                                 .isActive = true};
}

Controller::~KivMediaCaptureAndPlayViewController() {
  _captureDevice->setPreviewFrameHandler(nullptr);
  _player->setFrameHandler(nullptr);
  _player->pause();
  _removePlayerItem();
  if (_captureDevice->isRecording()) _captureDevice->stopRecording();
  // The camera goes off with the screen.
  if (_session) {
    _sessionQueue([device = _captureDevice] {
      if (device->isRunning()) device->stopRunning();
    });
  }
}

void Controller::viewDidLoad() {
  _setupButtons();
  _setupMediaType();
  _update(_UIState::disabled, false);
}

void Controller::viewDidAppear() {
  if (!_fileURL) {
    _update(_UIState::readyToCapture, false);
  } else if (_mediaType == MediaType::video) {
    _update(_UIState::readyToPlayback, false);
  } else {
    _update(_UIState::imageDisplay, false);
  }
}

void Controller::viewWillDisappear() {
  _setFlashOn(false);
  if (_state == _UIState::playing) {
    _pausePlayback();
  } else if (_state == _UIState::recording && _captureDevice->isRecording()) {
    _captureDevice->stopRecording();
  }
}

void Controller::_setupButtons() {
  _dismissButton.tag = rawValue(_ButtonType::dismiss);
  _mainControlButton.tag = rawValue(_ButtonType::control);
  _trashButton.tag = rawValue(_ButtonType::trash);
  _flashButton.tag = rawValue(_ButtonType::flash);
  _confirmButton.tag = rawValue(_ButtonType::confirm);
  _mainControlButton.imageName = imageName(_mainControlButtonType);
  _flashButton.imageName = flashImageName(_flashOn);
  _controlsDidChange(false);
}

void Controller::_setupMediaType() {
  if (!_fileURL) {
    _setMediaType(defaultMediaType);
  } else if (uniformTypeForFilenameExtension(_fileURL->pathExtension()) == UniformType::image) {
    _setMediaType(MediaType::photo);
  } else {
    _setMediaType(MediaType::video);
  }
}

void Controller::_setMediaType(MediaType mediaType) {
  _mediaType = mediaType;
  _videoPhotoSegmentedControl.selectedSegmentIndex = rawValue(mediaType);
  _setFlashOn(false);
  _switchControl(mediaType == MediaType::video ? _ControlButtonType::record : _ControlButtonType::photo,
                 true);
  _timeLabel.isHidden = mediaType == MediaType::photo;
  _controlsDidChange(true);
}

void Controller::_update(_UIState state, bool animated) {
  _state = state;
  switch (state) {
    case _UIState::disabled:
      _flashButton.isHidden = true;
      break;
    case _UIState::readyToCapture:
      _enterReadyToCapture();
      break;
    case _UIState::readyToPlayback:
      _enterReadyToPlayback(animated);
      break;
    case _UIState::imageDisplay:
      _enterImageDisplay();
      break;
    case _UIState::recording:
    case _UIState::playing:
    case _UIState::paused:
    case _UIState::ended:
      break;
  }
  // A branch that moved on to another state has updated the panel for that one.
  if (_state == state) _updateBottomControlsUI(state, animated);
}

void Controller::_enterReadyToCapture() {
  _newCapture = true;
  _fileURL.reset();
  _mainControlButton.isEnabled = _sessionState == _SessionState::running;
  _updateTimeLabel(0);
  _removePlayerLayerAndImageView();
  _authorize([this](bool granted) {
    if (granted) {
      _continueAuthorized();
    } else {
      _delegate.mediaCaptureAndPlayViewControllerDidFailWith(*this, SetupError::cameraAccessDenied());
    }
  });
}

void Controller::_enterReadyToPlayback(bool animated) {
  _updateTimeLabel(0);
  if (!_prepareForPlayback()) {
    _update(_UIState::readyToCapture, animated);
    return;
  }
  _insertPlayerLayer();
  _flashButton.isHidden = true;
  if (_autoplay) {
    _autoplay = false;
    _playback();
  }
}

void Controller::_enterImageDisplay() {
  if (!_insertImageView()) {
    _update(_UIState::readyToCapture, false);
    return;
  }
  _flashButton.isHidden = true;
}

void Controller::_updateBottomControlsUI(_UIState state, bool animated) {
  const _BottomControlsVisibility next = _visibleControls(state);
  if (const auto type = _controlType(state)) _switchControl(*type, animated);
  for (const auto& [control, transition] : next.transitions(_bottomControlsVisibility)) {
    if (transition != _BottomControlsVisibility::Transition::none) {
      _controlView(control).isHidden = transition == _BottomControlsVisibility::Transition::hide;
    }
  }
  _bottomControlsView.heightTransition = next.heightTransition(_bottomControlsVisibility);
  _bottomControlsHeightConstraint.constant = next.heightConstant();
  if (const auto distance = next.sideButtonsBottomConstant()) {
    _bottomControlsSideButtonsBottomtConstraint.constant = *distance;
  }
  _bottomControlsVisibility = next;
  _controlsDidChange(animated);
}

Controller::_BottomControlsVisibility Controller::_visibleControls(_UIState state) {
  switch (state) {
    case _UIState::disabled:
      return {};
    case _UIState::readyToCapture:
      return {{ControlType::segmented, ControlType::main}};
    case _UIState::recording:
    case _UIState::playing:
      return {{ControlType::main}};
    case _UIState::readyToPlayback:
    case _UIState::paused:
    case _UIState::ended: {
      _BottomControlsVisibility controls = _reviewControls();
      controls.visibleControls.insert(ControlType::main);
      return controls;
    }
    case _UIState::imageDisplay:
      return _reviewControls();
  }
  return {};
}

Controller::_BottomControlsVisibility Controller::_reviewControls() {
  _BottomControlsVisibility controls;
  if (_newCapture) controls.visibleControls.insert(ControlType::confirm);
  if (_canDeleteFile(_fileURL)) controls.visibleControls.insert(ControlType::trash);
  return controls;
}

std::optional<Controller::_ControlButtonType> Controller::_controlType(_UIState state) const {
  switch (state) {
    case _UIState::readyToCapture:
      return _mediaType == MediaType::video ? _ControlButtonType::record : _ControlButtonType::photo;
    case _UIState::recording:
      return _ControlButtonType::stop;
    case _UIState::readyToPlayback:
    case _UIState::paused:
      return _ControlButtonType::play;
    case _UIState::playing:
      return _ControlButtonType::pause;
    case _UIState::ended:
      return _ControlButtonType::replay;
    case _UIState::disabled:
    case _UIState::imageDisplay:
      return std::nullopt;
  }
  return std::nullopt;
}

View& Controller::_controlView(ControlType control) {
  switch (control) {
    case ControlType::trash:
      return _trashButton;
    case ControlType::confirm:
      return _confirmButton;
    case ControlType::segmented:
      return _videoPhotoSegmentedControl;
    case ControlType::main:
      return _mainControlButton;
  }
  fatalError("Unknown bottom control " + std::to_string(rawValue(control)));
}

void Controller::_switchControl(_ControlButtonType type, bool animated) {
  _mainControlButtonType = type;
  _mainControlButton.imageName = imageName(type);
  _controlsDidChange(animated);
}

void Controller::_buttonPressed(const Button& sender) {
  const auto button = fromRawValue<_ButtonType>(sender.tag);
  if (!button) fatalError("Unknown button tag " + std::to_string(sender.tag));
  switch (*button) {
    case _ButtonType::dismiss:
      _dismiss(DismissReason::close);
      break;
    case _ButtonType::control:
      _controlButtonPressed();
      break;
    case _ButtonType::trash:
      _deleteCurrentFile();
      _update(_UIState::readyToCapture, true);
      break;
    case _ButtonType::flash:
      _setFlashOn(!_flashOn);
      break;
    case _ButtonType::confirm:
      _dismiss(DismissReason::save);
      break;
  }
}

void Controller::_controlButtonPressed() {
  switch (_state) {
    case _UIState::readyToCapture:
      if (_mediaType == MediaType::video) {
        _startRecording();
      } else {
        _takePhoto();
      }
      break;
    case _UIState::recording:
      if (_captureDevice->isRecording()) _captureDevice->stopRecording();
      break;
    case _UIState::readyToPlayback:
    case _UIState::paused:
      _playback();
      break;
    case _UIState::playing:
      _pausePlayback();
      break;
    case _UIState::ended:
      if (!_player->hasCurrentItem()) break;
      _updateTimeLabel(0);
      _player->seek(0);
      _playback();
      break;
    case _UIState::disabled:
    case _UIState::imageDisplay:
      break;
  }
}

void Controller::_pausePlayback() {
  _player->pause();
  _update(_UIState::paused, true);
  _invalidateTimeDisplayTimer();
}

void Controller::_dismiss(DismissReason reason) {
  _setFlashOn(false);
  // A copy: the host may destroy the screen while it handles the call.
  const std::optional<URL> fileURL = _fileURL;
  _delegate.mediaCaptureAndPlayViewControllerDidDismissWith(*this, reason, fileURL);
}

void Controller::_videoPhotoSegmentChanged(const SegmentedControl& sender) {
  if (&sender != &_videoPhotoSegmentedControl) return;
  const auto mediaType = fromRawValue<MediaType>(sender.selectedSegmentIndex);
  if (!mediaType) fatalError("Unknown segment index " + std::to_string(sender.selectedSegmentIndex));
  _setMediaType(*mediaType);
}

CaptureDevice::FrameHandler Controller::_frameHandler(std::function<void(const Image&)> show) const {
  // Frames come faster than a busy main thread may take them: one hop is under way at a time, carrying
  // the newest frame when it runs.
  auto mailbox = std::make_shared<detail::FrameMailbox>();
  auto deliver = _onMain([mailbox, show = std::move(show)] {
    if (auto frame = mailbox->take()) show(*frame);
  });
  return [mailbox, deliver = std::move(deliver)](const Image& frame) {
    if (mailbox->put(frame)) deliver();
  };
}

void Controller::_controlsDidChange(bool animated) {
  if (_view) _view->controlsDidChange(animated);
}

void Controller::_mediaPreviewDidChange() {
  if (_view) _view->mediaPreviewDidChange();
}

}  // namespace zu
