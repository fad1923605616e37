#include "KivMediaCaptureAndPlayViewController/gstreamer/GstCaptureDevice.hpp"

#include <gst/video/video.h>

#include <typeinfo>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/CameraPipeline.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/Recorder.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/V4l2Camera.hpp"
#include "ZuGStreamer/ZuGStreamer.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace zu {
namespace {

using detail::CameraPipeline;
using detail::CameraSearch;
using detail::Recorder;

/// How long a recording under way has to complete its file when the camera stops.
constexpr std::chrono::seconds kRecordingFinishTimeout{10};
/// How long encoding one photo may take.
constexpr GstClockTime kPhotoTimeout = 10 * GST_SECOND;

void log(const std::string& message, ZuLogger::LogLevel level) {
  ZuLogger::log(message, &typeid(GstCaptureDevice), level);
}

Error cameraError(const std::string& message) {
  return detail::gstError(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_FAILED, message);
}

/// The preview's RGBA picture in `sample` described as RGBx: the same memory (without the buffer's notes,
/// which still say RGBA), the alpha byte ignored. The JPEG encoder takes RGB and makes the full-range YCbCr
/// that JPEG readers expect; handed RGBA, the converter would choose studio-range I420 for it, and white
/// would come out grey.
detail::GstSampleHandle opaqueSample(GstSample* sample) {
  const detail::GstCapsHandle caps(gst_caps_copy(gst_sample_get_caps(sample)));
  gst_caps_set_simple(caps.get(), "format", G_TYPE_STRING, "RGBx", nullptr);
  const detail::GstBufferHandle pixels(
      gst_buffer_copy_region(gst_sample_get_buffer(sample), GST_BUFFER_COPY_MEMORY, 0, -1));
  return detail::GstSampleHandle(
      gst_sample_new(pixels.get(), caps.get(), gst_sample_get_segment(sample), nullptr));
}

/// The picture of `sample` (a preview picture) as JPEG file bytes, at its full size.
Result<Data> jpegData(GstSample* sample) {
  const detail::GstCapsHandle jpeg(gst_caps_new_empty_simple("image/jpeg"));
  GError* error = nullptr;
  const detail::GstSampleHandle converted(
      gst_video_convert_sample(opaqueSample(sample).get(), jpeg.get(), kPhotoTimeout, &error));
  const detail::GErrorHandle ownedError(error);
  if (!converted) {
    return ownedError ? detail::gstError(ownedError->domain, ownedError->code, ownedError->message)
                      : cameraError("The photo could not be encoded");
  }
  GstBuffer* buffer = gst_sample_get_buffer(converted.get());
  GstMapInfo map;
  if (!buffer || !gst_buffer_map(buffer, &map, GST_MAP_READ)) return cameraError("The photo has no data");
  Data bytes(map.data, map.data + map.size);
  gst_buffer_unmap(buffer, &map);
  return bytes;
}

}  // namespace

GstCaptureDevice::GstCaptureDevice(Settings settings) : settings_(std::move(settings)) {}

GstCaptureDevice::~GstCaptureDevice() {
  finishRecording();
  recorder_.reset();
  // The pipeline's threads call back into this device until it has stopped.
  pipeline_.reset();
}

CaptureAuthorizationStatus GstCaptureDevice::authorizationStatus() const {
  if (settings_.synthetic) return CaptureAuthorizationStatus::authorized;
  return detail::findCamera(settings_.deviceDirectory).outcome == CameraSearch::Outcome::denied
             ? CaptureAuthorizationStatus::denied
             : CaptureAuthorizationStatus::authorized;
}

void GstCaptureDevice::requestAccess(AccessCompletion completion) {
  completion(authorizationStatus() == CaptureAuthorizationStatus::authorized);
}

CaptureDevice::SetupResult GstCaptureDevice::setupSession() {
  const auto failed = [](SetupError error) {
    return SetupResult{CaptureSessionState::error, std::move(error)};
  };
  if (auto initialized = detail::initializeGStreamer(); !initialized) {
    return failed(SetupError::videoInputFailed(initialized.error()));
  }
  detail::CameraSource source{.devicePath = std::nullopt,
                              .microphone = std::nullopt,
                              .width = settings_.width,
                              .height = settings_.height,
                              .framesPerSecond = settings_.framesPerSecond};
  if (!settings_.synthetic) {
    const CameraSearch search = detail::findCamera(settings_.deviceDirectory);
    if (search.outcome == CameraSearch::Outcome::denied) return failed(SetupError::cameraAccessDenied());
    if (search.outcome == CameraSearch::Outcome::found) {
      source.devicePath = search.path;
      source.microphone = CameraPipeline::defaultMicrophone();
    } else if (!settings_.allowsSyntheticCamera) {
      return failed(SetupError::noBackWideAngleCamera());
    }
  }
  if (auto video = CameraPipeline::requireVideoElements(source); !video) {
    return failed(SetupError::videoInputFailed(video.error()));
  }
  if (auto audio = CameraPipeline::requireAudioElements(source); !audio) {
    return failed(SetupError::audioInputFailed(audio.error()));
  }
  auto output = Recorder::requireElements();
  if (output) output = detail::requireElements({"jpegenc"});
  if (!output) {
    log("Recordings and photos cannot be made: " + output.error().localizedDescription(),
        ZuLogger::LogLevel::error);
    return failed(SetupError::movieOutputRefused());
  }
  auto made = CameraPipeline::make(
      source,
      [this](GstSample* sample) {
        if (auto frame = detail::imageFromSample(sample)) deliverFrame(*frame);
      },
      [this](const Error& error) { sessionFailed(error); });
  if (!made) {
    log("The camera pipeline could not be made: " + made.error().localizedDescription(),
        ZuLogger::LogLevel::error);
    return failed(SetupError::cameraInputRefused());
  }
  if (auto started = (*made)->start(); !started) {
    (*made)->stop();
    return failed(SetupError::videoInputFailed(started.error()));
  }
  std::lock_guard lock(mutex_);
  pipeline_ = std::move(*made);
  if (source.devicePath) controls_ = std::make_unique<detail::V4l2Controls>(*source.devicePath);
  applyZoom();
  return {CaptureSessionState::running, std::nullopt};
}

detail::CameraPipeline* GstCaptureDevice::pipeline() const {
  std::lock_guard lock(mutex_);
  return pipeline_.get();
}

std::shared_ptr<detail::Recorder> GstCaptureDevice::recorder() const {
  std::lock_guard lock(mutex_);
  return recorder_;
}

bool GstCaptureDevice::isRunning() const {
  const auto* running = pipeline();
  return running && running->isRunning();
}

void GstCaptureDevice::startRunning() {
  auto* stopped = pipeline();
  if (!stopped) return;
  if (auto started = stopped->start(); !started) {
    log("The camera did not start: " + started.error().localizedDescription(), ZuLogger::LogLevel::error);
  }
}

void GstCaptureDevice::stopRunning() {
  auto* running = pipeline();
  if (!running) return;
  finishRecording();
  running->stop();
}

void GstCaptureDevice::setPreviewFrameHandler(FrameHandler handler) {
  std::lock_guard lock(handlerMutex_);
  frameHandler_ = std::move(handler);
}

void GstCaptureDevice::deliverFrame(const Image& frame) {
  std::lock_guard lock(handlerMutex_);
  if (frameHandler_) frameHandler_(frame);
}

void GstCaptureDevice::capturePhoto(CaptureFlashMode /*flashMode*/, PhotoCompletion completion) {
  const auto* running = pipeline();
  detail::GstSampleHandle newest = running ? running->latestSample() : nullptr;
  if (!newest) {
    completion(std::nullopt, cameraError("The camera has not sent a picture yet"));
    return;
  }
  // Encoding takes longer than a main-thread turn should.
  photoQueue_.async(
      [sample = std::shared_ptr<GstSample>(std::move(newest)), completion = std::move(completion)] {
        auto photo = jpegData(sample.get());
        if (photo) {
          completion(std::move(*photo), std::nullopt);
        } else {
          completion(std::nullopt, photo.error());
        }
      });
}

bool GstCaptureDevice::isRecording() const {
  const auto current = recorder();
  return current && current->isRecording();
}

void GstCaptureDevice::startRecording(const URL& outputFileURL, RecordingCompletion completion) {
  auto* running = pipeline();
  if (!running || !running->isRunning() || isRecording()) {
    completion(outputFileURL, cameraError(running && running->isRunning() ? "A recording is under way already"
                                                                          : "The camera is not running"));
    return;
  }
  auto recording = std::make_shared<Recorder>(*running, outputFileURL.path(),
                                              [outputFileURL, completion](std::optional<Error> error) {
                                                completion(outputFileURL, std::move(error));
                                              });
  if (auto started = recording->start(); !started) {
    completion(outputFileURL, started.error());
    return;
  }
  std::lock_guard lock(mutex_);
  recorder_ = std::move(recording);
}

void GstCaptureDevice::stopRecording() {
  if (const auto current = recorder()) current->stop();
}

double GstCaptureDevice::recordedDuration() const {
  const auto current = recorder();
  return current ? current->duration() : 0;
}

void GstCaptureDevice::finishRecording() {
  if (const auto current = recorder(); current && current->isRecording())
    current->finish(kRecordingFinishTimeout);
}

void GstCaptureDevice::sessionFailed(const Error& error) {
  log("The camera failed: " + error.localizedDescription(), ZuLogger::LogLevel::error);
  if (const auto current = recorder()) current->fail(error);
}

// Nothing else holds the camera's settings here: configuration is always open.
Result<void> GstCaptureDevice::lockForConfiguration() { return {}; }

void GstCaptureDevice::unlockForConfiguration() {}

bool GstCaptureDevice::hasTorch() const {
  std::lock_guard lock(mutex_);
  return controls_ && controls_->hasTorch();
}

Result<void> GstCaptureDevice::setTorchModeOn(float level) {
  std::lock_guard lock(mutex_);
  if (!controls_) return Error::posix(ENOTSUP);
  return controls_->setTorch(level);
}

void GstCaptureDevice::setTorchModeOff() {
  std::lock_guard lock(mutex_);
  if (controls_) static_cast<void>(controls_->setTorch(std::nullopt));  // a torch error changes nothing
}

double GstCaptureDevice::videoZoomFactor() const {
  std::lock_guard lock(mutex_);
  return zoomFactor_;
}

void GstCaptureDevice::setVideoZoomFactor(double factor) {
  std::lock_guard lock(mutex_);
  zoomFactor_ = factor;
  applyZoom();
}

void GstCaptureDevice::applyZoom() {
  if (controls_ && controls_->zoom()) {
    static_cast<void>(
        controls_->setZoom(detail::zoomControlValue(*controls_->zoom(), zoomFactor_, maxDigitalZoomFactor)));
  } else if (pipeline_) {
    pipeline_->setDigitalZoom(zoomFactor_);
  }
}

double GstCaptureDevice::maxAvailableVideoZoomFactor() const {
  std::lock_guard lock(mutex_);
  if (controls_ && controls_->zoom()) return detail::maxZoomFactor(*controls_->zoom(), maxDigitalZoomFactor);
  return maxDigitalZoomFactor;
}

}  // namespace zu
