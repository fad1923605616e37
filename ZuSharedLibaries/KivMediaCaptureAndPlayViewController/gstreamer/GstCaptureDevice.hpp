#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "KivMediaCaptureAndPlayViewController/core/CaptureDevice.hpp"
#include "ZuFoundation/DispatchQueue.hpp"

namespace zu {

namespace detail {
class CameraPipeline;
class Recorder;
class V4l2Controls;
}  // namespace detail

/**
 * The camera of a Linux machine for the capture screen, on GStreamer: the first V4L2 video capture device
 * with the default microphone, or a synthetic camera (moving colour bars with the time of day, and a quiet
 * tone) where there is no camera or the host asks for it.
 *
 * One live pipeline per device shows the preview, takes photos (JPEG of the newest picture, at the
 * pipeline's full size) and records videos (H.264 and AAC in MP4) while the preview runs. Without a
 * microphone, videos have no sound and nothing fails.
 *
 * Authorisation: a camera device node that exists but cannot be opened for lack of permission is `denied`;
 * everything else (the synthetic camera included) is `authorized`. There is no dialogue to ask through, so
 * `requestAccess` answers with the current status.
 *
 * Torch and zoom use the camera's V4L2 controls (flash LED torch mode, absolute zoom) when it has them.
 * Without a zoom control, and on the synthetic camera, zoom is digital: the pictures are cropped to their
 * middle and scaled back up, to at most `maxDigitalZoomFactor` (beyond that a 720p picture has too few
 * pixels left to be evidence of anything). There is no photo flash: a photo's flash mode changes nothing.
 *
 * @par Thread Safety
 * As `CaptureDevice` says. Completions and preview frames arrive on GStreamer's threads or on the device's
 * photo queue.
 */
class GstCaptureDevice final : public CaptureDevice {
 public:
  struct Settings {
    /// Use the synthetic camera even when a camera is connected.
    bool synthetic = false;
    /// Use the synthetic camera when no camera is connected; otherwise set-up fails for want of a camera.
    bool allowsSyntheticCamera = false;
    /// Where the camera's device nodes ("video0", "video1", ...) are looked for.
    std::string deviceDirectory = "/dev";
    /// The size and rate of every picture: previews, photos and recordings.
    int width = 1280;
    int height = 720;
    int framesPerSecond = 30;
  };

  static constexpr double maxDigitalZoomFactor = 4;

  explicit GstCaptureDevice(Settings settings);
  GstCaptureDevice() : GstCaptureDevice(Settings{}) {}
  ~GstCaptureDevice() override;
  GstCaptureDevice(const GstCaptureDevice&) = delete;
  GstCaptureDevice& operator=(const GstCaptureDevice&) = delete;

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

 private:
  /// The pipeline once set up; it lives as long as the device.
  detail::CameraPipeline* pipeline() const;
  std::shared_ptr<detail::Recorder> recorder() const;
  void deliverFrame(const Image& frame);
  void sessionFailed(const Error& error);
  /// Ends a recording under way, for a pipeline about to stop.
  void finishRecording();
  /// Sets the camera's zoom control, or the digital zoom, to `zoomFactor_`; call with `mutex_` held.
  void applyZoom();

  const Settings settings_;
  mutable std::mutex mutex_;
  std::unique_ptr<detail::CameraPipeline> pipeline_;
  std::unique_ptr<detail::V4l2Controls> controls_;
  std::shared_ptr<detail::Recorder> recorder_;
  double zoomFactor_ = 1;
  /// Held while the frame handler runs, so that a replaced handler is never called after its setter returns.
  std::mutex handlerMutex_;
  FrameHandler frameHandler_;
  /// Encodes photos off the main thread.
  DispatchQueue photoQueue_{"com.zumbrel.capture-photo"};
};

}  // namespace zu
