// The camera side of the screen: authorisation, the session, photos, recordings, flash and zoom.
#include <algorithm>
#include <typeinfo>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewController.hpp"
#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp"
#include "ZuDate/ZuDate.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace zu {
namespace {

using Controller = KivMediaCaptureAndPlayViewController;

void logError(const std::string& message) {
  ZuLogger::log(message, &typeid(Controller), ZuLogger::LogLevel::error);
}

}  // namespace

void Controller::_authorize(std::function<void(bool granted)> completion) {
  // The answer always comes through the main queue, so that it never runs inside a state change.
  auto answer = _onMain(std::move(completion));
  switch (_captureDevice->authorizationStatus()) {
    case CaptureAuthorizationStatus::notDetermined:
      _captureDevice->requestAccess(std::move(answer));
      return;
    case CaptureAuthorizationStatus::authorized:
      answer(true);
      return;
    case CaptureAuthorizationStatus::denied:
    case CaptureAuthorizationStatus::restricted:
      answer(false);
      return;
  }
}

void Controller::_continueAuthorized() {
  if (!_session) {
    _setupSession();
    return;
  }
  // The session was set up before (or is being set up): go on with what it came to. Set-up failures are
  // all failures with a message, so the stored text gives the same error again.
  std::optional<SetupError> error;
  if (_sessionState == _SessionState::error)
    error = SetupError::failure(_sessionSetupErrorDescription.value_or(""));
  _continueWithSession(_sessionState, error);
}

void Controller::_setupSession() {
  _session = true;
  auto done = _onMain(
      [this](const CaptureDevice::SetupResult& result) { _continueWithSession(result.state, result.error); });
  _sessionQueue([device = _captureDevice, done = std::move(done)] { done(device->setupSession()); });
}

void Controller::_continueWithSession(_SessionState state, const std::optional<SetupError>& error) {
  _sessionState = state;
  if (error) {
    _sessionSetupErrorDescription = error->errorDescription();
    logError("Capture session set-up failed: " + *_sessionSetupErrorDescription);
    _delegate.mediaCaptureAndPlayViewControllerDidFailWith(*this, *error);
    return;
  }
  _flashButton.isHidden = false;
  _setupPreview();
  _controlsDidChange(true);
  _startSession();
}

void Controller::_startSession() {
  auto done = _onMain([this](bool running) {
    _sessionState = running ? _SessionState::running : _SessionState::stopped;
    if (_state != _UIState::readyToCapture) return;
    _mainControlButton.isEnabled = running;
    _controlsDidChange(false);
  });
  _sessionQueue([device = _captureDevice, done = std::move(done)] {
    if (!device->isRunning()) device->startRunning();
    done(device->isRunning());
  });
}

void Controller::_setupPreview() {
  if (_mediaPreviewView.previewLayer) return;
  _mediaPreviewView.previewLayer = VideoLayer{};
  _captureDevice->setPreviewFrameHandler(_frameHandler([this](const Image& frame) {
    _mediaPreviewView.previewLayer->frame = frame;
    _mediaPreviewDidChange();
  }));
  _mediaPreviewDidChange();
}

void Controller::_takePhoto() {
  const CaptureFlashMode flashMode = _flashOn ? CaptureFlashMode::on : CaptureFlashMode::off;
  _captureDevice->capturePhoto(
      flashMode, _onMain([this](const std::optional<Data>& photo, const std::optional<Error>& error) {
        _photoOutputDidFinishProcessingPhoto(photo, error);
      }));
}

void Controller::_photoOutputDidFinishProcessingPhoto(const std::optional<Data>& photo,
                                                      const std::optional<Error>& error) {
  if (error || !photo) {
    logError("Taking a photo failed: " + (error ? error->localizedDescription() : std::string("no data")));
    return;
  }
  if (!_imageFromData(*photo)) {
    logError("The photo's data holds no image");
    return;
  }
  const URL url = _newFileURL("jpg");
  if (const auto written = ZuFileManager::write(*photo, url); !written) {
    logError("Writing the photo to " + url.path() + " failed: " + written.error().localizedDescription());
    return;
  }
  _fileURL = url;
  _setFlashOn(false);
  _update(_UIState::imageDisplay, true);
}

void Controller::_startRecording() {
  if (_captureDevice->isRecording()) return;
  _captureDevice->startRecording(_newFileURL("mp4"),
                                 _onMain([this](const URL& outputFileURL, const std::optional<Error>& error) {
                                   _fileOutputDidFinishRecording(outputFileURL, error);
                                 }));
  _update(_UIState::recording, true);
  _scheduleTimeDisplayTimer([this] { return _captureDevice->recordedDuration(); });
}

void Controller::_fileOutputDidFinishRecording(const URL& outputFileURL, const std::optional<Error>& error) {
  _setFlashOn(false);
  _invalidateTimeDisplayTimer();
  _setVideoZoomFactor(_Const::Values::minimumVideoZoomFactor);
  if (error) {
    // The screen goes back to capture; whatever the recording left in the file stays there.
    logError("Recording to " + outputFileURL.path() + " failed: " + error->localizedDescription());
    _update(_UIState::readyToCapture, true);
    return;
  }
  _fileURL = outputFileURL;
  _update(_UIState::readyToPlayback, true);
}

URL Controller::_newFileURL(std::string_view extension) const {
  return _mediaDirectory.appendingPathComponent(stringWithLocalDateTimeForFileNames(_now()))
      .appendingPathExtension(extension);
}

void Controller::_setFlashOn(bool flashOn) {
  const bool previous = std::exchange(_flashOn, flashOn);
  if (flashOn == previous) return;
  // In photo mode the photo's flash mode fires the flash; the torch is only turned off there.
  if (!(flashOn && _mediaType == MediaType::photo)) _updateTorch();
  _flashButton.imageName = flashImageName(flashOn);
  _controlsDidChange(true);
}

void Controller::_updateTorch() {
  if (!_captureDevice->hasTorch() || !_captureDevice->lockForConfiguration()) return;
  if (_flashOn) {
    static_cast<void>(
        _captureDevice->setTorchModeOn(_Const::Values::torchLevel));  // a torch error changes nothing
  } else {
    _captureDevice->setTorchModeOff();
  }
  _captureDevice->unlockForConfiguration();
}

void Controller::_setVideoZoomFactor(double factor) {
  if (!_captureDevice->lockForConfiguration()) return;
  // Clamped to 1 ... the maximum; a NaN factor gives 1.
  const double maximum = _captureDevice->maxAvailableVideoZoomFactor();
  _captureDevice->setVideoZoomFactor(
      std::max(_Const::Values::minimumVideoZoomFactor, std::min(factor, maximum)));
  _captureDevice->unlockForConfiguration();
}

void Controller::_zoomPinchGesture(const PinchGestureRecognizer& gesture) {
  using State = PinchGestureRecognizer::State;
  switch (gesture.state) {
    case State::began:
      _initialVideoZoomFactor = _captureDevice->videoZoomFactor();
      break;
    case State::changed:
      if (_initialVideoZoomFactor) _setVideoZoomFactor(*_initialVideoZoomFactor * gesture.scale);
      break;
    case State::ended:
    case State::cancelled:
    case State::failed:
      _initialVideoZoomFactor.reset();
      break;
    case State::possible:
      break;
  }
}

}  // namespace zu
