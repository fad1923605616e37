#include "ZuGStreamer/FirstPicture.hpp"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <atomic>
#include <string_view>

#include "ZuGStreamer/GstHandles.hpp"
#include "ZuGStreamer/ZuGStreamer.hpp"

namespace zu::detail {
namespace {

/// The name of the application sink that keeps the first picture.
constexpr const char* kPictures = "pictures";

/// What the decoder's streaming threads share with the decoding call.
struct Decoding {
  GstElement* pipeline = nullptr;
  std::atomic<bool> hasPictureStream = false;
};

/// Sends the first picture stream that `decodebin` finds to the pictures sink, as RGBA; other streams stay
/// unlinked, which their demuxer ignores while one stream is linked.
void linkPictureStream(GstElement* /*decoder*/, GstPad* pad, gpointer data) {
  auto& decoding = *static_cast<Decoding*>(data);
  const GstCapsHandle caps(gst_pad_get_current_caps(pad));
  if (!caps || gst_caps_is_empty(caps.get())) return;
  const std::string_view mediaType = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
  if (!mediaType.starts_with("video/") || decoding.hasPictureStream.exchange(true)) return;
  auto bin =
      parseBin(std::string("videoconvert name=input ! video/x-raw,format=RGBA ! appsink name=") + kPictures);
  if (!bin) return;  // without a sink nothing prerolls: the stream fails on the bus
  GstPad* input = exposePad(bin->get(), childByName(bin->get(), "input").get(), "sink", "sink");
  gst_bin_add(GST_BIN(decoding.pipeline), bin->get());
  static_cast<void>(gst_pad_link(pad, input));
  gst_element_sync_state_with_parent(bin->get());
}

Error noPicture() {
  return gstError(GST_STREAM_ERROR, GST_STREAM_ERROR_WRONG_TYPE, "The file holds no picture");
}

/// The preroll of the pictures sink, once the pipeline has prerolled.
Result<Image> prerolledPicture(GstElement* pipeline) {
  const GstElementHandle sink(gst_bin_get_by_name(GST_BIN(pipeline), kPictures));
  if (!sink) return noPicture();
  const GstSampleHandle sample(gst_app_sink_try_pull_preroll(GST_APP_SINK(sink.get()), 0));
  if (!sample) return noPicture();  // the stream ended before its first picture
  auto image = imageFromSample(sample.get());
  if (!image) return noPicture();
  return *image;
}

/// Pauses `pipeline` (its source feeding a queue into the element `decoder`) and waits on its bus until it
/// has prerolled, failed or ended. The queue makes the demuxer parse in push mode: in pull mode `decodebin`
/// drops the errors of a demuxer it is still setting up, and a broken file would neither preroll nor fail.
Result<Image> firstPicture(GstElement* pipeline) {
  Decoding decoding{.pipeline = pipeline};
  g_signal_connect(childByName(pipeline, "decoder").get(), "pad-added", G_CALLBACK(&linkPictureStream),
                   &decoding);
  const GstBusHandle bus(gst_element_get_bus(pipeline));
  static_cast<void>(gst_element_set_state(pipeline, GST_STATE_PAUSED));
  const GstMessageHandle outcome(gst_bus_timed_pop_filtered(
      bus.get(), GST_CLOCK_TIME_NONE,
      static_cast<GstMessageType>(GST_MESSAGE_ASYNC_DONE | GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
  const bool failed = outcome && GST_MESSAGE_TYPE(outcome.get()) == GST_MESSAGE_ERROR;
  Result<Image> picture =
      failed ? Result<Image>(errorFromMessage(outcome.get())) : prerolledPicture(pipeline);
  static_cast<void>(gst_element_set_state(pipeline, GST_STATE_NULL));
  return picture;
}

}  // namespace

Result<Image> firstPictureOfFile(const std::string& path) {
  auto pipeline = parseLaunch("filesrc name=source ! queue ! decodebin name=decoder");
  if (!pipeline) return pipeline.error();
  g_object_set(childByName(pipeline->get(), "source").get(), "location", path.c_str(), nullptr);
  return firstPicture(pipeline->get());
}

Result<Image> firstPictureOfData(const Data& bytes) {
  if (bytes.empty()) return noPicture();
  auto pipeline = parseLaunch("appsrc name=source ! queue ! decodebin name=decoder");
  if (!pipeline) return pipeline.error();
  const GstElementHandle source = childByName(pipeline->get(), "source");
  // The bytes outlive the pipeline, which stops before this returns: the buffer borrows them.
  auto* borrowed = const_cast<std::uint8_t*>(bytes.data());  // a read-only buffer: never written
  static_cast<void>(gst_app_src_push_buffer(
      GST_APP_SRC(source.get()), gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, borrowed, bytes.size(),
                                                             0, bytes.size(), nullptr, nullptr)));
  static_cast<void>(gst_app_src_end_of_stream(GST_APP_SRC(source.get())));
  return firstPicture(pipeline->get());
}

}  // namespace zu::detail
