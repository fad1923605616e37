#pragma once

#include <gst/gst.h>

#include <initializer_list>
#include <optional>
#include <string>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuGStreamer/GstHandles.hpp"
#include "ZuImage/Image.hpp"

namespace zu::detail {

/// Initialises GStreamer once per process; every later call gives the first call's outcome. Any thread.
Result<void> initializeGStreamer();

/// An error in GStreamer's terms: the GLib domain's name, the code, `message` as the text for people and
/// `debug` (where it happened), when given, as the debug description.
Error gstError(GQuark domain, int code, const std::string& message, const char* debug = nullptr);
/// The error a GST_MESSAGE_ERROR message carries.
Error errorFromMessage(GstMessage* message);

/// A new element of the factory `factory`, or a missing-plugin error that names it.
Result<GstElementHandle> makeElement(const char* factory, const char* name = nullptr);
/// Succeeds when every one of `factories` is installed; else fails with the missing-plugin error of the first
/// that is not.
Result<void> requireElements(std::initializer_list<const char*> factories);
/// A bin or pipeline built from a launch description ("videotestsrc ! appsink name=frames"), or why not.
Result<GstElementHandle> parseLaunch(const std::string& description);
/// A bin of the elements of a launch description, their pads unexposed, or why not.
Result<GstElementHandle> parseBin(const std::string& description);
/// Exposes the pad `padName` of `child`, an element of `bin`, as the bin's pad `ghostName`; the new pad.
GstPad* exposePad(GstElement* bin, GstElement* child, const char* padName, const char* ghostName);
/// The element called `name` inside `bin`; the bin must hold one (a missing one stops the program).
GstElementHandle childByName(GstElement* bin, const char* name);

/// The picture of a sample whose caps are RGBA video, copied out of the sample; nothing for other samples.
std::optional<Image> imageFromSample(GstSample* sample);

/// The running time of `pipeline` now (its clock's time less its base time); nothing without a clock.
std::optional<GstClockTime> runningTime(GstElement* pipeline);

/// Seconds of a GStreamer time.
inline double seconds(GstClockTime time) { return static_cast<double>(time) / GST_SECOND; }

}  // namespace zu::detail
