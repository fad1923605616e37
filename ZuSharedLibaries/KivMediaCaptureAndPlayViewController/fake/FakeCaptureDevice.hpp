#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "KivMediaCaptureAndPlayViewController/core/CaptureDevice.hpp"

namespace zu {

namespace detail {
class Ticker;
}

/**
 * A camera without hardware, for running the capture screen anywhere and for tests. Its preview is a moving
 * test picture, its photos are real small JPEG files of the current picture, and a recording leaves a small
 * placeholder file (not a playable video).
 *
 * With `framesPerSecond` above 0 it makes frames on a thread of its own while the session runs, and recorded
 * time follows them. At 0 nothing happens by itself: tests call `deliverFrame` and `advanceRecording`.
 * Every other operation finishes before it returns, completions included.
 *
 * @par Thread Safety
 * All operations may be called from any thread.
 */
class FakeCaptureDevice final : public CaptureDevice {
 public:
  struct Settings {
    CaptureAuthorizationStatus authorizationStatus = CaptureAuthorizationStatus::authorized;
    /// The user's answer when asked for access.
    bool grantsAccess = true;
    /// Set-up fails with this error when given.
    std::optional<SetupError> setupError{};
    bool hasTorch = true;
    double maxAvailableVideoZoomFactor = 4;
    /// Locking for configuration fails with this error when given.
    std::optional<Error> lockError{};
    /// Photos fail with this error when given.
    std::optional<Error> photoError{};
    /// Recordings end with this error when given.
    std::optional<Error> recordingError{};
    double framesPerSecond = 0;
    int frameWidth = 640;
    int frameHeight = 360;
  };

  /// What the device was told, for tests.
  struct Record {
    int setupCount = 0;
    int lockCount = 0;
    /// Whether a successful lock is still held.
    bool isLocked = false;
    /// Torch or zoom changes made without holding the lock (a fault of the caller).
    int unlockedChangeCount = 0;
    /// Torch changes, and the torch's level: nothing while it is off.
    int torchChangeCount = 0;
    std::optional<float> torchLevel;
    double videoZoomFactor = 1;
    std::optional<CaptureFlashMode> lastPhotoFlashMode;
    std::optional<URL> lastRecordingURL;
  };

  explicit FakeCaptureDevice(Settings settings);
  FakeCaptureDevice() : FakeCaptureDevice(Settings{}) {}
  ~FakeCaptureDevice() override;
  FakeCaptureDevice(const FakeCaptureDevice&) = delete;
  FakeCaptureDevice& operator=(const FakeCaptureDevice&) = delete;

  CaptureAuthorizationStatus authorizationStatus() const override;
  void requestAccess(AccessCompletion completion) override;
  SetupResult setupSession() override;
  bool isRunning() const override;
  void startRunning() override;
  void stopRunning() override;
  void setPreviewFrameHandler(FrameHandler handler) override;
  void capturePhoto(CaptureFlashMode flashMode, PhotoCompletion completion) override;
  bool isRecording() const override;
  void startRecording(const URL& outputFileURL, RecordingCompletion completion) override;
  void stopRecording() override;
  double recordedDuration() const override;
  Result<void> lockForConfiguration() override;
  void unlockForConfiguration() override;
  bool hasTorch() const override;
  Result<void> setTorchModeOn(float level) override;
  void setTorchModeOff() override;
  double videoZoomFactor() const override;
  void setVideoZoomFactor(double factor) override;
  double maxAvailableVideoZoomFactor() const override;

  /// Sends the next test picture to the preview handler (when the session runs).
  void deliverFrame();
  /// Adds `seconds` to the time recorded (when recording).
  void advanceRecording(double seconds);
  Record record() const;

 private:
  const Settings settings_;
  mutable std::mutex mutex_;
  Record record_;
  bool running_ = false;
  long frameNumber_ = 0;
  std::optional<URL> recordingURL_;
  RecordingCompletion recordingCompletion_;
  double recordedSeconds_ = 0;
  std::optional<CaptureAuthorizationStatus> answeredStatus_;
  /// Held while a handler runs, so that a replaced handler is never called after its setter returns.
  std::mutex handlerMutex_;
  FrameHandler frameHandler_;
  std::unique_ptr<detail::Ticker> ticker_;

  /// Counts a torch or zoom change; call with `mutex_` held.
  void recordChange();
};

}  // namespace zu
