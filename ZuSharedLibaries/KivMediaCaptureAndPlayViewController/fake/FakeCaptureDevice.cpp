#include "KivMediaCaptureAndPlayViewController/fake/FakeCaptureDevice.hpp"

#include <cmath>
#include <string>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/fake/TestPattern.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/detail/Ticker.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace zu {

FakeCaptureDevice::FakeCaptureDevice(Settings settings) : settings_(std::move(settings)) {
  if (settings_.framesPerSecond > 0) {
    ticker_ = std::make_unique<detail::Ticker>(settings_.framesPerSecond, [this] {
      advanceRecording(1 / settings_.framesPerSecond);
      deliverFrame();
    });
  }
}

// The ticker goes first: its thread uses everything else.
FakeCaptureDevice::~FakeCaptureDevice() { ticker_.reset(); }

CaptureAuthorizationStatus FakeCaptureDevice::authorizationStatus() const {
  std::lock_guard lock(mutex_);
  return answeredStatus_.value_or(settings_.authorizationStatus);
}

void FakeCaptureDevice::requestAccess(AccessCompletion completion) {
  {
    std::lock_guard lock(mutex_);
    answeredStatus_ =
        settings_.grantsAccess ? CaptureAuthorizationStatus::authorized : CaptureAuthorizationStatus::denied;
  }
  completion(settings_.grantsAccess);
}

CaptureDevice::SetupResult FakeCaptureDevice::setupSession() {
  std::lock_guard lock(mutex_);
  ++record_.setupCount;
  if (settings_.setupError) return {CaptureSessionState::error, settings_.setupError};
  running_ = true;
  return {CaptureSessionState::running, std::nullopt};
}

bool FakeCaptureDevice::isRunning() const {
  std::lock_guard lock(mutex_);
  return running_;
}

void FakeCaptureDevice::startRunning() {
  std::lock_guard lock(mutex_);
  running_ = !settings_.setupError;
}

void FakeCaptureDevice::stopRunning() {
  std::lock_guard lock(mutex_);
  running_ = false;
}

void FakeCaptureDevice::setPreviewFrameHandler(FrameHandler handler) {
  std::lock_guard lock(handlerMutex_);
  frameHandler_ = std::move(handler);
}

void FakeCaptureDevice::deliverFrame() {
  long frameNumber = 0;
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
    frameNumber = ++frameNumber_;
  }
  const Image frame = testPatternImage(settings_.frameWidth, settings_.frameHeight, frameNumber);
  std::lock_guard lock(handlerMutex_);
  if (frameHandler_) frameHandler_(frame);
}

void FakeCaptureDevice::capturePhoto(CaptureFlashMode flashMode, PhotoCompletion completion) {
  long frameNumber = 0;
  {
    std::lock_guard lock(mutex_);
    record_.lastPhotoFlashMode = flashMode;
    frameNumber = frameNumber_;
  }
  if (settings_.photoError) {
    completion(std::nullopt, settings_.photoError);
    return;
  }
  completion(jpegData(testPatternImage(settings_.frameWidth, settings_.frameHeight, frameNumber)),
             std::nullopt);
}

bool FakeCaptureDevice::isRecording() const {
  std::lock_guard lock(mutex_);
  return recordingURL_.has_value();
}

void FakeCaptureDevice::startRecording(const URL& outputFileURL, RecordingCompletion completion) {
  std::lock_guard lock(mutex_);
  recordingURL_ = outputFileURL;
  record_.lastRecordingURL = outputFileURL;
  recordingCompletion_ = std::move(completion);
  recordedSeconds_ = 0;
}

void FakeCaptureDevice::stopRecording() {
  std::optional<URL> url;
  RecordingCompletion completion;
  std::string placeholder;
  {
    std::lock_guard lock(mutex_);
    url = std::exchange(recordingURL_, std::nullopt);
    completion = std::exchange(recordingCompletion_, nullptr);
    placeholder = "Placeholder for " + std::to_string(std::lround(recordedSeconds_)) +
                  " seconds recorded by the fake camera\n";
  }
  if (!url) return;
  const auto written = ZuFileManager::write(Data(placeholder.begin(), placeholder.end()), *url);
  completion(*url, written ? settings_.recordingError : written.error());
}

double FakeCaptureDevice::recordedDuration() const {
  std::lock_guard lock(mutex_);
  return recordedSeconds_;
}

void FakeCaptureDevice::advanceRecording(double seconds) {
  std::lock_guard lock(mutex_);
  if (recordingURL_) recordedSeconds_ += seconds;
}

Result<void> FakeCaptureDevice::lockForConfiguration() {
  std::lock_guard lock(mutex_);
  ++record_.lockCount;
  record_.isLocked = !settings_.lockError;
  if (settings_.lockError) return *settings_.lockError;
  return {};
}

void FakeCaptureDevice::unlockForConfiguration() {
  std::lock_guard lock(mutex_);
  record_.isLocked = false;
}

void FakeCaptureDevice::recordChange() {
  if (!record_.isLocked) ++record_.unlockedChangeCount;
}

bool FakeCaptureDevice::hasTorch() const { return settings_.hasTorch; }

Result<void> FakeCaptureDevice::setTorchModeOn(float level) {
  std::lock_guard lock(mutex_);
  ++record_.torchChangeCount;
  recordChange();
  record_.torchLevel = level;
  return {};
}

void FakeCaptureDevice::setTorchModeOff() {
  std::lock_guard lock(mutex_);
  ++record_.torchChangeCount;
  recordChange();
  record_.torchLevel.reset();
}

double FakeCaptureDevice::videoZoomFactor() const {
  std::lock_guard lock(mutex_);
  return record_.videoZoomFactor;
}

void FakeCaptureDevice::setVideoZoomFactor(double factor) {
  std::lock_guard lock(mutex_);
  recordChange();
  record_.videoZoomFactor = factor;
}

double FakeCaptureDevice::maxAvailableVideoZoomFactor() const {
  return settings_.maxAvailableVideoZoomFactor;
}

FakeCaptureDevice::Record FakeCaptureDevice::record() const {
  std::lock_guard lock(mutex_);
  return record_;
}

}  // namespace zu
