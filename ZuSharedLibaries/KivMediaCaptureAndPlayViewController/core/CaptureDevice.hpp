#pragma once

#include <functional>
#include <optional>

#include "KivMediaCaptureAndPlayViewController/core/SetupError.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"
#include "ZuImage/Image.hpp"

namespace zu {

/// Outcome of the last set-up or start of a capture session.
enum class CaptureSessionState { running, stopped, error };

/// Whether the application may use the camera.
enum class CaptureAuthorizationStatus { notDetermined = 0, restricted = 1, denied = 2, authorized = 3 };

/// Whether a photo fires the flash.
enum class CaptureFlashMode { off = 0, on = 1 };

/**
 * The camera (with its microphone) behind the capture screen: one capture session that shows a preview,
 * takes photos and records videos, with torch and zoom. The screen holds the decisions; an implementation
 * only does what it is told and reports what happened.
 *
 * @par Thread Safety
 * `setupSession`, `isRunning`, `startRunning` and `stopRunning` are called on the screen's session queue and
 * may block. Every other operation is called on the main thread and must not block. Completions and frame
 * handlers may be called on any thread (the screen moves them onto the main queue); each completion is
 * called exactly once. Once `setPreviewFrameHandler` returns, the handler it replaced is not called again.
 */
class CaptureDevice {
 public:
  using AccessCompletion = std::function<void(bool granted)>;
  /// The photo's file bytes (JPEG) or why there is none: exactly one is present.
  using PhotoCompletion = std::function<void(std::optional<Data> photo, std::optional<Error> error)>;
  /// The file a recording went to, and the error that ended it early, if any.
  using RecordingCompletion = std::function<void(const URL& outputFileURL, std::optional<Error> error)>;
  using FrameHandler = std::function<void(const Image& frame)>;

  /// What a session set-up ended with: `running` and no error, or `error` and why.
  struct SetupResult {
    CaptureSessionState state = CaptureSessionState::error;
    std::optional<SetupError> error;
  };

  virtual ~CaptureDevice() = default;

  virtual CaptureAuthorizationStatus authorizationStatus() const = 0;
  /// Asks the user for camera access; `completion` receives the answer.
  virtual void requestAccess(AccessCompletion completion) = 0;

  /// Builds the session (camera input, microphone input when there is one, movie and photo outputs) and
  /// starts it. Called once per screen.
  virtual SetupResult setupSession() = 0;
  virtual bool isRunning() const = 0;
  virtual void startRunning() = 0;
  virtual void stopRunning() = 0;
  /// Receives the session's preview frames while it runs; an empty handler stops them.
  virtual void setPreviewFrameHandler(FrameHandler handler) = 0;

  virtual void capturePhoto(CaptureFlashMode flashMode, PhotoCompletion completion) = 0;
  virtual bool isRecording() const = 0;
  /// Records video with sound into a new file at `outputFileURL` until `stopRecording`.
  virtual void startRecording(const URL& outputFileURL, RecordingCompletion completion) = 0;
  virtual void stopRecording() = 0;
  /// Seconds recorded so far; not a finite number when unknown.
  virtual double recordedDuration() const = 0;

  /// Torch and zoom change only between a successful lock and its unlock.
  virtual Result<void> lockForConfiguration() = 0;
  virtual void unlockForConfiguration() = 0;
  virtual bool hasTorch() const = 0;
  /// Turns the torch on at `level` (0 to 1).
  virtual Result<void> setTorchModeOn(float level) = 0;
  virtual void setTorchModeOff() = 0;
  virtual double videoZoomFactor() const = 0;
  /// Called with a factor from 1 to `maxAvailableVideoZoomFactor()` only.
  virtual void setVideoZoomFactor(double factor) = 0;
  /// The largest zoom factor of the camera's active format (1 without zoom).
  virtual double maxAvailableVideoZoomFactor() const = 0;
};

}  // namespace zu
