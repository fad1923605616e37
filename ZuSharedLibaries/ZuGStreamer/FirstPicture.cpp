#include "ZuGStreamer/detail/FirstPicture.hpp"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ZuGStreamer/detail/GStreamer.hpp"
#include "ZuGStreamer/detail/GstHandles.hpp"

namespace zu::detail {
namespace {

/// The name of the application sink that keeps the first picture.
constexpr const char* kPictures = "pictures";

/// A picture's size in pixels.
struct Size {
  int width = 0;
  int height = 0;

  bool operator==(const Size&) const = default;
};

/// The size a picture of `full` size is decoded at to show `longerSide` pixels on its longer side: its
/// own when it has no more, or when there is no `longerSide`.
Size shownSize(Size full, std::optional<int> longerSide) {
  const int longer = std::max(full.width, full.height);
  if (!longerSide || longer <= *longerSide) return full;
  const auto shown = [&](int length) {
    return std::max(1, static_cast<int>(std::lround(static_cast<double>(length) * *longerSide / longer)));
  };
  return {.width = shown(full.width), .height = shown(full.height)};
}

/// What the decoder's streaming threads share with the decoding call. The sizes are written before the
/// picture stream is linked and read once the pipeline has stopped.
struct Decoding {
  GstElement* pipeline = nullptr;
  std::optional<int> longerSide;
  std::atomic<bool> hasPictureStream = false;
  Size full;
  Size shown;

  bool reduced() const { return shown != full; }
};

/// The pixels' caps: RGBA, and the size when the picture is reduced.
std::string pictureCaps(const Decoding& decoding) {
  std::string caps = "video/x-raw,format=RGBA";
  if (!decoding.reduced()) return caps;
  return caps + ",width=" + std::to_string(decoding.shown.width) +
         ",height=" + std::to_string(decoding.shown.height);
}

/// Sends the first picture stream that `decodebin` finds to the pictures sink, as RGBA at the size shown;
/// other streams stay unlinked, which their demuxer ignores while one stream is linked. One element
/// converts and scales, in one pass over the pixels.
void linkPictureStream(GstElement* /*decoder*/, GstPad* pad, gpointer data) {
  auto& decoding = *static_cast<Decoding*>(data);
  const GstCapsHandle caps(gst_pad_get_current_caps(pad));
  if (!caps || gst_caps_is_empty(caps.get())) return;
  const GstStructure* format = gst_caps_get_structure(caps.get(), 0);
  const std::string_view mediaType = gst_structure_get_name(format);
  if (!mediaType.starts_with("video/") || decoding.hasPictureStream.exchange(true)) return;
  gst_structure_get_int(format, "width", &decoding.full.width);
  gst_structure_get_int(format, "height", &decoding.full.height);
  decoding.shown = shownSize(decoding.full, decoding.longerSide);
  auto bin =
      parseBin("videoconvertscale name=input ! " + pictureCaps(decoding) + " ! appsink name=" + kPictures);
  if (!bin) return;  // without a sink nothing prerolls: the stream fails on the bus
  GstPad* input = exposePad(bin->get(), childByName(bin->get(), "input").get(), "sink", "sink");
  gst_bin_add(GST_BIN(decoding.pipeline), bin->get());
  static_cast<void>(gst_pad_link(pad, input));
  gst_element_sync_state_with_parent(bin->get());
}

/// Streams of sound are not decoded: `decodebin` exposes them still coded, and they stay unlinked.
gboolean decodesStream(GstElement* /*decoder*/, GstPad* /*pad*/, GstCaps* caps, gpointer /*data*/) {
  if (gst_caps_get_size(caps) == 0) return TRUE;
  const std::string_view mediaType = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  return !mediaType.starts_with("audio/");
}

/// libav's video decoders decode the first picture alone: with frame threads each thread would first take
/// a picture of its own (slice threads share one).
void decodeOnePictureAtATime(GstBin* /*pipeline*/, GstBin* /*bin*/, GstElement* element, gpointer /*data*/) {
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), "thread-type")) {
    gst_util_set_object_arg(G_OBJECT(element), "thread-type", "slice");
  }
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
/// A picture decoded smaller than its full size is reduced from it, which `decodeFullSize` decodes.
Result<Image> firstPicture(GstElement* pipeline, std::optional<int> longerSide,
                           Image::FullSizeDecoder decodeFullSize) {
  Decoding decoding{.pipeline = pipeline, .longerSide = longerSide, .full = {}, .shown = {}};
  const GstElementHandle decoder = childByName(pipeline, "decoder");
  g_signal_connect(decoder.get(), "pad-added", G_CALLBACK(&linkPictureStream), &decoding);
  g_signal_connect(decoder.get(), "autoplug-continue", G_CALLBACK(&decodesStream), nullptr);
  g_signal_connect(pipeline, "deep-element-added", G_CALLBACK(&decodeOnePictureAtATime), nullptr);
  const GstBusHandle bus(gst_element_get_bus(pipeline));
  static_cast<void>(gst_element_set_state(pipeline, GST_STATE_PAUSED));
  const GstMessageHandle outcome(gst_bus_timed_pop_filtered(
      bus.get(), GST_CLOCK_TIME_NONE,
      static_cast<GstMessageType>(GST_MESSAGE_ASYNC_DONE | GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
  const bool failed = outcome && GST_MESSAGE_TYPE(outcome.get()) == GST_MESSAGE_ERROR;
  Result<Image> picture =
      failed ? Result<Image>(errorFromMessage(outcome.get())) : prerolledPicture(pipeline);
  static_cast<void>(gst_element_set_state(pipeline, GST_STATE_NULL));
  if (!picture || !decoding.reduced()) return picture;
  return picture->reducedFrom(decoding.full.width, decoding.full.height, std::move(decodeFullSize));
}

}  // namespace

Result<Image> firstPictureOfFile(const std::string& path, std::optional<int> longerSide) {
  auto pipeline = parseLaunch("filesrc name=source ! queue ! decodebin name=decoder");
  if (!pipeline) return pipeline.error();
  g_object_set(childByName(pipeline->get(), "source").get(), "location", path.c_str(), nullptr);
  return firstPicture(pipeline->get(), longerSide, [path]() -> std::optional<Image> {
    auto full = firstPictureOfFile(path);
    if (!full) return std::nullopt;
    return std::move(*full);
  });
}

Result<Image> firstPictureOfData(const Data& bytes, std::optional<int> longerSide,
                                 Image::FullSizeDecoder decodeFullSize) {
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
  return firstPicture(pipeline->get(), longerSide, std::move(decodeFullSize));
}

}  // namespace zu::detail
