#pragma once

#include "ZuFoundation/internal/UniqueHandle.hpp"

#include <gst/gst.h>

namespace zu::detail {

/// One reference to a `GstObject` (an element, a pad, a bus, a clock...).
template <typename T>
using GstObjectHandle = UniqueHandle<T, gst_object_unref>;
using GstElementHandle = GstObjectHandle<GstElement>;
using GstPadHandle = GstObjectHandle<GstPad>;
using GstBusHandle = GstObjectHandle<GstBus>;
using GstClockHandle = GstObjectHandle<GstClock>;

/// Releases a mini object (a message, sample, caps...) through the exported function: the type-specific
/// unref functions are inline, with internal linkage, and would give each source file a type of its own.
template <typename T>
void unrefMiniObject(T* handle) {
  gst_mini_object_unref(GST_MINI_OBJECT_CAST(handle));
}
/// One reference to a `GstMiniObject`.
template <typename T>
using GstMiniObjectHandle = UniqueHandle<T, unrefMiniObject<T>>;
using GstMessageHandle = GstMiniObjectHandle<GstMessage>;
using GstSampleHandle = GstMiniObjectHandle<GstSample>;
using GstBufferHandle = GstMiniObjectHandle<GstBuffer>;
using GstCapsHandle = GstMiniObjectHandle<GstCaps>;
using GErrorHandle = UniqueHandle<GError, g_error_free>;
using GCharHandle = UniqueHandle<gchar, g_free>;

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
