#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/CameraPipeline.hpp"

#include <gst/app/gstappsink.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "ZuGStreamer/ZuGStreamer.hpp"

namespace zu::detail {
namespace {

std::string sizeCaps(const CameraSource& source) {
  return "width=" + std::to_string(source.width) + ",height=" + std::to_string(source.height);
}

std::string rawVideoCaps(const CameraSource& source) {
  return "video/x-raw,format=I420," + sizeCaps(source) +
         ",framerate=" + std::to_string(source.framesPerSecond) + "/1";
}

bool hasSound(const CameraSource& source) { return !source.devicePath || source.microphone; }

}  // namespace

std::string CameraPipeline::picturesDescription(const CameraSource& source) {
  std::string camera = source.devicePath
                           ? "v4l2src name=camera ! decodebin ! videoconvert ! videoscale ! videorate ! " +
                                 rawVideoCaps(source)
                           : "videotestsrc name=camera is-live=true pattern=smpte horizontal-speed=3 ! " +
                                 rawVideoCaps(source);
  std::string zoom =
      " ! videocrop name=zoomcrop ! videoscale ! video/x-raw," + sizeCaps(source) + ",pixel-aspect-ratio=1/1";
  std::string overlay = source.devicePath ? ""
                                          : " ! clockoverlay time-format=\"%Y-%m-%d %H:%M:%S\" "
                                            "halignment=center valignment=center shaded-background=true "
                                            "font-desc=\"Sans 16\"";
  return camera + zoom + overlay;
}

std::string CameraPipeline::soundDescription(const CameraSource& source) {
  return source.devicePath
             ? *source.microphone + " name=microphone ! audioconvert ! audioresample ! audio/x-raw,rate=48000"
             : "audiotestsrc name=microphone is-live=true volume=0.05 samplesperbuffer=480 "
               "! audio/x-raw,rate=48000,channels=1";
}

std::optional<std::string> CameraPipeline::defaultMicrophone() {
  for (const char* factory : {"pulsesrc", "alsasrc"}) {
    auto microphone = makeElement(factory);
    if (!microphone) continue;
    // A sound server or a capture device answers when the element opens it.
    const bool opens = gst_element_set_state(microphone->get(), GST_STATE_READY) == GST_STATE_CHANGE_SUCCESS;
    static_cast<void>(gst_element_set_state(microphone->get(), GST_STATE_NULL));
    if (opens) return factory;
  }
  return std::nullopt;
}

Result<void> CameraPipeline::requireVideoElements(const CameraSource& source) {
  if (auto common = requireElements({"videocrop", "videoscale", "videoconvert", "tee", "queue", "appsink"});
      !common) {
    return common;
  }
  return source.devicePath ? requireElements({"v4l2src", "decodebin", "videorate"})
                           : requireElements({"videotestsrc", "clockoverlay"});
}

Result<void> CameraPipeline::requireAudioElements(const CameraSource& source) {
  if (!hasSound(source)) return {};
  return source.devicePath
             ? requireElements({source.microphone->c_str(), "audioconvert", "audioresample", "tee"})
             : requireElements({"audiotestsrc", "tee"});
}

Result<std::unique_ptr<CameraPipeline>> CameraPipeline::make(const CameraSource& source,
                                                             SampleHandler onSample,
                                                             FailureHandler onFailure) {
  // The preview keeps only the newest picture: a slow view never holds the camera back.
  std::string description = picturesDescription(source) +
                            " ! tee name=videotee allow-not-linked=true"
                            " videotee. ! queue leaky=downstream max-size-buffers=2 max-size-bytes=0 "
                            "max-size-time=0 ! videoconvert ! video/x-raw,format=RGBA "
                            "! appsink name=preview max-buffers=1 drop=true sync=false";
  if (hasSound(source))
    description += " " + soundDescription(source) + " ! tee name=audiotee allow-not-linked=true";
  auto pipeline = parseLaunch(description);
  if (!pipeline) return pipeline.error();
  if (source.devicePath) {
    g_object_set(childByName(pipeline->get(), "camera").get(), "device", source.devicePath->c_str(), nullptr);
  }
  return std::unique_ptr<CameraPipeline>(
      new CameraPipeline(std::move(*pipeline), source, std::move(onSample), std::move(onFailure)));
}

CameraPipeline::CameraPipeline(GstElementHandle pipeline, const CameraSource& source, SampleHandler onSample,
                               FailureHandler onFailure)
    : pipeline_(std::move(pipeline)),
      videoTee_(childByName(pipeline_.get(), "videotee")),
      audioTee_(hasSound(source) ? childByName(pipeline_.get(), "audiotee") : nullptr),
      zoomCrop_(childByName(pipeline_.get(), "zoomcrop")),
      source_(source),
      onSample_(std::move(onSample)),
      onFailure_(std::move(onFailure)) {
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = [](GstAppSink* sink, gpointer self) { return newSample(GST_ELEMENT(sink), self); };
  gst_app_sink_set_callbacks(GST_APP_SINK(childByName(pipeline_.get(), "preview").get()), &callbacks, this,
                             nullptr);
  busWatch_ = std::make_unique<BusWatch>(
      pipeline_.get(), [this](GstMessage* message) { handleMessage(message); },
      [this](GstMessage* message) { messagePosted(message); });
}

CameraPipeline::~CameraPipeline() {
  stop();
  busWatch_.reset();
}

Result<void> CameraPipeline::start() {
  {
    std::lock_guard lock(mutex_);
    failure_.reset();
    latestSample_.reset();
  }
  // A failure is posted before the state change returns, and `messagePosted` records it at once.
  static_cast<void>(gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING));
  std::unique_lock lock(mutex_);
  const bool settled =
      changed_.wait_for(lock, firstPictureTimeout, [this] { return latestSample_ || failure_; });
  if (failure_) return *failure_;
  if (!settled) {
    failure_ = gstError(
        GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ,
        "The camera sent no picture within " + std::to_string(firstPictureTimeout.count()) + " seconds");
    return *failure_;
  }
  running_ = true;
  return {};
}

void CameraPipeline::stop() {
  static_cast<void>(gst_element_set_state(pipeline_.get(), GST_STATE_NULL));
  std::lock_guard lock(mutex_);
  running_ = false;
}

bool CameraPipeline::isRunning() const {
  std::lock_guard lock(mutex_);
  return running_;
}

GstSampleHandle CameraPipeline::latestSample() const {
  std::lock_guard lock(mutex_);
  return latestSample_ ? GstSampleHandle(gst_sample_ref(latestSample_.get())) : nullptr;
}

void CameraPipeline::setDigitalZoom(double factor) {
  // Even amounts keep the chroma of 4:2:0 pictures aligned.
  const auto crop = [factor](int size) {
    const double kept = size / std::max(1.0, factor);
    return static_cast<int>(std::lround((size - kept) / 4)) * 2;
  };
  const int sides = crop(source_.width);
  const int ends = crop(source_.height);
  g_object_set(zoomCrop_.get(), "left", sides, "right", sides, "top", ends, "bottom", ends, nullptr);
}

void CameraPipeline::addBranch(PipelineBranch branch) {
  std::lock_guard lock(mutex_);
  branch_ = std::move(branch);
}

void CameraPipeline::removeBranch() {
  std::lock_guard lock(mutex_);
  branch_.reset();
}

GstFlowReturn CameraPipeline::newSample(GstElement* sink, gpointer self) {
  auto& pipeline = *static_cast<CameraPipeline*>(self);
  GstSampleHandle sample(gst_app_sink_pull_sample(GST_APP_SINK(sink)));
  if (!sample) return GST_FLOW_OK;
  pipeline.onSample_(sample.get());
  {
    std::lock_guard lock(pipeline.mutex_);
    pipeline.latestSample_ = std::move(sample);
  }
  pipeline.changed_.notify_all();
  return GST_FLOW_OK;
}

std::optional<PipelineBranch> CameraPipeline::branchOf(GstMessage* message) const {
  std::lock_guard lock(mutex_);
  if (branch_ && gst_object_has_as_ancestor(GST_MESSAGE_SRC(message), GST_OBJECT(branch_->bin)))
    return branch_;
  return std::nullopt;
}

void CameraPipeline::messagePosted(GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return;
  if (const auto branch = branchOf(message)) {
    branch->onError(message);
    return;
  }
  {
    std::lock_guard lock(mutex_);
    failure_ = errorFromMessage(message);
    running_ = false;
  }
  changed_.notify_all();
}

void CameraPipeline::handleMessage(GstMessage* message) {
  // Messages of elements that have left the pipeline since they were posted (a branch's) are old news.
  if (!gst_object_has_as_ancestor(GST_MESSAGE_SRC(message), GST_OBJECT(pipeline_.get()))) return;
  if (const auto branch = branchOf(message)) {
    branch->onMessage(message);
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    onFailure_(errorFromMessage(message));
  }
}

}  // namespace zu::detail
