#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/Recorder.hpp"

#include <utility>

#include "ZuGStreamer/ZuGStreamer.hpp"

namespace zu::detail {
namespace {

/// Up to 3 seconds of pictures and sound wait for the encoders before the camera is held back.
constexpr const char* kInputQueue = "queue max-size-buffers=0 max-size-bytes=0 max-size-time=3000000000";

}  // namespace

// Key frames every 2 seconds at 30 pictures a second; no look-ahead, so the end comes without a backlog.
const char* const Recorder::videoEncoderDescription =
    "videoconvert ! video/x-raw,format=I420 ! x264enc speed-preset=veryfast tune=zerolatency key-int-max=60 "
    "! h264parse";
const char* const Recorder::audioEncoderDescription = "audioconvert ! audioresample ! avenc_aac ! aacparse";

Result<void> Recorder::requireElements() {
  return detail::requireElements({"queue", "videoconvert", "x264enc", "h264parse", "mp4mux", "filesink",
                                  "audioconvert", "audioresample", "avenc_aac", "aacparse"});
}

Recorder::Recorder(CameraPipeline& pipeline, std::string path, Completion done)
    : pipeline_(pipeline), path_(std::move(path)), done_(std::move(done)) {}

Recorder::~Recorder() {
  if (isRecording()) finish(std::chrono::seconds(10));
}

Result<void> Recorder::start() {
  const auto now = runningTime(pipeline_.pipeline());
  if (!now) {
    return gstError(GST_CORE_ERROR, GST_CORE_ERROR_STATE_CHANGE, "The camera is not running");
  }
  startTime_ = *now;
  std::string description = std::string(kInputQueue) + " name=videoin ! " + videoEncoderDescription +
                            " ! mp4mux name=mux ! filesink name=file async=false";
  if (pipeline_.audioTee()) {
    description += std::string(" ") + kInputQueue + " name=audioin ! " + audioEncoderDescription + " ! mux.";
  }
  auto bin = parseBin(description);
  if (!bin) return bin.error();
  bin_ = std::move(*bin);
  // The muxer's end of stream must reach us although the preview's sink never ends.
  g_object_set(bin_.get(), "message-forward", TRUE, nullptr);
  g_object_set(childByName(bin_.get(), "file").get(), "location", path_.c_str(), nullptr);

  pipeline_.addBranch({.bin = bin_.get(),
                       .onError = [this](GstMessage* message) { failed(message); },
                       .onMessage = [this](GstMessage* message) { handleMessage(message); }});
  gst_bin_add(GST_BIN(pipeline_.pipeline()), bin_.get());
  {
    std::lock_guard lock(mutex_);
    attached_ = true;
  }
  Result<void> started;
  if (gst_element_sync_state_with_parent(bin_.get()) == GST_STATE_CHANGE_FAILURE) {
    std::lock_guard lock(mutex_);
    started = branchError_.value_or(
        gstError(GST_CORE_ERROR, GST_CORE_ERROR_STATE_CHANGE, "The recording could not start"));
  }
  if (started) started = attach(inputs_[0], pipeline_.videoTee(), "videoin");
  if (started && pipeline_.audioTee()) started = attach(inputs_[1], pipeline_.audioTee(), "audioin");
  if (!started) {
    detach();
    return started;
  }
  std::lock_guard lock(mutex_);
  recording_ = true;
  return {};
}

Result<void> Recorder::attach(Input& input, GstElement* tee, const char* queueName) {
  input.recorder = this;
  input.tee = tee;
  input.isVideo = tee == pipeline_.videoTee();
  GstPad* ghost = exposePad(bin_.get(), childByName(bin_.get(), queueName).get(), "sink", queueName);
  input.sinkPad = retainObject(ghost);
  // The file's time line starts at the start of the recording.
  gst_pad_set_offset(ghost, -static_cast<gint64>(startTime_));
  input.teePad = GstPadHandle(gst_element_request_pad_simple(tee, "src_%u"));
  gst_pad_add_probe(input.teePad.get(), GST_PAD_PROBE_TYPE_BUFFER, &Recorder::onBuffer, &input, nullptr);
  if (gst_pad_link(input.teePad.get(), ghost) != GST_PAD_LINK_OK) {
    return gstError(GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION,
                    "The recording could not be connected to the camera");
  }
  return {};
}

GstPadProbeReturn Recorder::onBuffer(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer input) {
  auto& feeding = *static_cast<Input*>(input);
  return feeding.recorder->pass(feeding, GST_PAD_PROBE_INFO_BUFFER(info));
}

GstPadProbeReturn Recorder::pass(Input& input, GstBuffer* buffer) {
  if (failed_ || input.ended) return GST_PAD_PROBE_DROP;
  // Live sources stamp each buffer with the running time of its capture.
  const GstClockTime captured = GST_BUFFER_PTS(buffer);
  if (!GST_CLOCK_TIME_IS_VALID(captured) || captured < startTime_) return GST_PAD_PROBE_DROP;
  if (captured >= stopTime_) {
    endInput(input);
    return GST_PAD_PROBE_DROP;
  }
  if (input.isVideo) {
    GstClockTime none = GST_CLOCK_TIME_NONE;
    firstPicture_.compare_exchange_strong(none, captured);
    const GstClockTime length = GST_BUFFER_DURATION(buffer);
    pictureEnd_ = captured + (GST_CLOCK_TIME_IS_VALID(length) ? length : 0);
  }
  return GST_PAD_PROBE_OK;
}

void Recorder::endInput(Input& input) {
  if (input.sinkPad && !input.ended.exchange(true)) {
    gst_pad_send_event(input.sinkPad.get(), gst_event_new_eos());
  }
}

void Recorder::stop() { stopTime_ = runningTime(pipeline_.pipeline()).value_or(0); }

void Recorder::finish(std::chrono::milliseconds timeout) {
  stopTime_ = 0;
  for (Input& input : inputs_) endInput(input);
  std::unique_lock lock(mutex_);
  if (completed_.wait_for(lock, timeout, [this] { return !recording_ && !completing_; })) return;
  lock.unlock();
  complete(gstError(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED,
                    "The recording was not complete when the camera stopped"));
}

void Recorder::fail(const Error& error) { complete(error); }

bool Recorder::isRecording() const {
  std::lock_guard lock(mutex_);
  return recording_;
}

double Recorder::duration() const {
  const GstClockTime first = firstPicture_;
  const GstClockTime end = pictureEnd_;
  if (!GST_CLOCK_TIME_IS_VALID(first) || !GST_CLOCK_TIME_IS_VALID(end)) return 0;
  return seconds(end - first);
}

void Recorder::failed(GstMessage* message) {
  failed_ = true;
  std::lock_guard lock(mutex_);
  if (!branchError_) branchError_ = errorFromMessage(message);
}

void Recorder::handleMessage(GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    complete(errorFromMessage(message));
    return;
  }
  const GstStructure* structure = gst_message_get_structure(message);
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ELEMENT ||
      !gst_structure_has_name(structure, "GstBinForwarded"))
    return;
  GstMessage* forwarded = nullptr;
  gst_structure_get(structure, "message", GST_TYPE_MESSAGE, &forwarded, nullptr);
  const GstMessageHandle owned(forwarded);
  // The file sink is the branch's only sink: its end of stream means the file is complete.
  if (owned && GST_MESSAGE_TYPE(owned.get()) == GST_MESSAGE_EOS) complete(std::nullopt);
}

void Recorder::complete(std::optional<Error> error) {
  {
    std::lock_guard lock(mutex_);
    if (!recording_) return;
    recording_ = false;
    completing_ = true;
  }
  detach();
  done_(std::move(error));
  {
    std::lock_guard lock(mutex_);
    completing_ = false;
  }
  completed_.notify_all();
}

void Recorder::detach() {
  {
    std::lock_guard lock(mutex_);
    if (!attached_) return;
    attached_ = false;
  }
  pipeline_.removeBranch();
  for (Input& input : inputs_) {
    if (!input.teePad) continue;
    // Its probe drops whatever the tee still sends until the pad has gone.
    input.ended = true;
    gst_pad_unlink(input.teePad.get(), input.sinkPad.get());
    gst_element_release_request_pad(input.tee, input.teePad.get());
  }
  static_cast<void>(gst_element_set_state(bin_.get(), GST_STATE_NULL));
  gst_bin_remove(GST_BIN(pipeline_.pipeline()), bin_.get());
}

}  // namespace zu::detail
