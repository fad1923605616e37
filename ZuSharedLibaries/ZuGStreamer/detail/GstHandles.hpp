#pragma once

#include <gst/gst.h>

#include <memory>

namespace zu::detail {

/// Calls the C library's release function `Release` on a handle; for `std::unique_ptr` of GLib and
/// GStreamer handles.
template <auto Release>
struct GstReleaser {
  template <typename T>
  void operator()(T* handle) const {
    Release(handle);
  }
};

/// A GLib or GStreamer handle owned through its release function: `GstHandle<GstCaps, gst_caps_unref>`.
template <typename T, auto Release>
using GstHandle = std::unique_ptr<T, GstReleaser<Release>>;

/// One reference to a `GstObject` (an element, a pad, a bus, a clock...).
template <typename T>
using GstObjectHandle = GstHandle<T, gst_object_unref>;
using GstElementHandle = GstObjectHandle<GstElement>;
using GstPadHandle = GstObjectHandle<GstPad>;
using GstBusHandle = GstObjectHandle<GstBus>;
using GstClockHandle = GstObjectHandle<GstClock>;

/// Releases a mini object (a message, sample, caps...) through the exported function: the type-specific
/// unref functions are inline, with internal linkage, and would give each source file a type of its own.
struct GstMiniObjectReleaser {
  template <typename T>
  void operator()(T* handle) const {
    gst_mini_object_unref(GST_MINI_OBJECT_CAST(handle));
  }
};
/// One reference to a `GstMiniObject`.
template <typename T>
using GstMiniObjectHandle = std::unique_ptr<T, GstMiniObjectReleaser>;
using GstMessageHandle = GstMiniObjectHandle<GstMessage>;
using GstSampleHandle = GstMiniObjectHandle<GstSample>;
using GstCapsHandle = GstMiniObjectHandle<GstCaps>;
using GErrorHandle = GstHandle<GError, g_error_free>;
using GCharHandle = GstHandle<gchar, g_free>;

/// Owns `object`, a new floating reference (what factories return): it is sunk, so that a bin that takes the
/// object later adds a reference of its own instead of taking ours.
template <typename T>
GstObjectHandle<T> sinkFloating(T* object) {
  if (object) gst_object_ref_sink(object);
  return GstObjectHandle<T>(object);
}

/// A new reference to `object`, for a handle of its own.
template <typename T>
GstObjectHandle<T> retainObject(T* object) {
  if (object) gst_object_ref(object);
  return GstObjectHandle<T>(object);
}

}  // namespace zu::detail
