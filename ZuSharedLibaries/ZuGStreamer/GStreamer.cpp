// GStreamer support shared by the capture screen's camera and player and by the preview images.
#include "ZuGStreamer/detail/GStreamer.hpp"

#include <gst/video/video.h>

#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "ZuFoundation/FatalError.hpp"
#include "ZuImage/detail/PixelBuffer.hpp"

namespace zu::detail {

std::optional<Error> initializeGStreamer() {
  static std::once_flag once;
  static std::optional<Error> outcome;
  std::call_once(once, [] {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error)) return;
    const GErrorHandle owned(error);
    outcome = owned ? gstError(owned->domain, owned->code, owned->message)
                    : gstError(GST_CORE_ERROR, GST_CORE_ERROR_FAILED, "GStreamer could not be initialised");
  });
  return outcome;
}

Error gstError(GQuark domain, int code, const std::string& message, const char* debug) {
  Error::UserInfo info{{std::string(Error::localizedDescriptionKey), message}};
  if (debug) info.set(std::string(Error::debugDescriptionKey), std::string(debug));
  return Error(g_quark_to_string(domain), code, std::move(info));
}

Error errorFromMessage(GstMessage* message) {
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  const GErrorHandle ownedError(error);
  const GCharHandle ownedDebug(debug);
  return gstError(error->domain, error->code, error->message, debug);
}

namespace {

Error missingPluginError(const char* factory) {
  return gstError(GST_CORE_ERROR, GST_CORE_ERROR_MISSING_PLUGIN,
                  std::string("The GStreamer element \"") + factory + "\" is not installed");
}

}  // namespace

Result<GstElementHandle> makeElement(const char* factory, const char* name) {
  if (auto error = initializeGStreamer()) return *error;
  if (GstElement* element = gst_element_factory_make(factory, name)) return sinkFloating(element);
  return missingPluginError(factory);
}

std::optional<Error> missingElement(std::initializer_list<const char*> factories) {
  if (auto error = initializeGStreamer()) return error;
  for (const char* factory : factories) {
    const GstObjectHandle<GstElementFactory> found(gst_element_factory_find(factory));
    if (!found) return missingPluginError(factory);
  }
  return std::nullopt;
}

namespace {

/// The outcome of a parse: the element, or the error. A missing element fails the whole description
/// instead of leaving a hole in it (GST_PARSE_FLAG_FATAL_ERRORS).
Result<GstElementHandle> parsed(GstElement* element, GError* error) {
  const GErrorHandle ownedError(error);
  GstElementHandle owned = sinkFloating(element);
  if (ownedError) return gstError(ownedError->domain, ownedError->code, ownedError->message);
  return owned;
}

}  // namespace

Result<GstElementHandle> parseLaunch(const std::string& description) {
  if (auto error = initializeGStreamer()) return *error;
  GError* error = nullptr;
  GstElement* element =
      gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  return parsed(element, error);
}

Result<GstElementHandle> parseBin(const std::string& description) {
  if (auto error = initializeGStreamer()) return *error;
  GError* error = nullptr;
  GstElement* bin = gst_parse_bin_from_description_full(description.c_str(), FALSE, nullptr,
                                                        GST_PARSE_FLAG_FATAL_ERRORS, &error);
  return parsed(bin, error);
}

GstElementHandle childByName(GstElement* bin, const char* name) {
  GstElementHandle child(gst_bin_get_by_name(GST_BIN(bin), name));
  if (!child) fatalError(std::string("No element called ") + name + " in " + GST_OBJECT_NAME(bin));
  return child;
}

GstPad* exposePad(GstElement* bin, GstElement* child, const char* padName, const char* ghostName) {
  const GstPadHandle target(gst_element_get_static_pad(child, padName));
  GstPad* ghost = gst_ghost_pad_new(ghostName, target.get());
  gst_pad_set_active(ghost, TRUE);
  gst_element_add_pad(bin, ghost);
  return ghost;
}

std::optional<Image> imageFromSample(GstSample* sample) {
  GstVideoInfo info;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (!buffer || !gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) ||
      GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_RGBA) {
    return std::nullopt;
  }
  GstVideoFrame frame;
  if (!gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) return std::nullopt;
  const auto width = GST_VIDEO_FRAME_WIDTH(&frame);
  const auto height = GST_VIDEO_FRAME_HEIGHT(&frame);
  const auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
  const auto* rows = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
  const auto rowBytes = static_cast<std::size_t>(width) * 4;
  std::vector<std::uint8_t> pixels = pixelBuffer(rowBytes * static_cast<std::size_t>(height));
  for (std::size_t y = 0; y < static_cast<std::size_t>(height); ++y) {
    std::memcpy(pixels.data() + y * rowBytes, rows + y * stride, rowBytes);
  }
  gst_video_frame_unmap(&frame);
  return Image(width, height, std::move(pixels));
}

std::optional<GstClockTime> runningTime(GstElement* pipeline) {
  const GstClockHandle clock(gst_element_get_clock(pipeline));
  if (!clock) return std::nullopt;
  const GstClockTime now = gst_clock_get_time(clock.get());
  const GstClockTime base = gst_element_get_base_time(pipeline);
  return now > base ? now - base : 0;
}

}  // namespace zu::detail
