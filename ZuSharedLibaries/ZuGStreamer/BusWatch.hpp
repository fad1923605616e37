#pragma once

#include <gst/gst.h>

#include <functional>
#include <memory>
#include <thread>

#include "ZuGStreamer/GstHandles.hpp"

namespace zu::detail {

/**
 * Watches a pipeline's bus without a GLib main loop: every message posted on it goes to `handler`, in
 * order, on a thread of the watch's own, so that a failure is seen the moment it is posted, never after a
 * time-out. `onPost`, when given, sees each message first, on the thread that posts it (often a streaming
 * thread): it must be quick and must not change element states.
 *
 * Destroying the watch stops its thread after the message being handled; messages not yet handled are
 * dropped. It must not be destroyed from its own handler.
 *
 * @par Thread Safety
 * Made and destroyed on any one thread; the handlers run as described.
 */
class BusWatch {
 public:
  using Handler = std::function<void(GstMessage* message)>;

  BusWatch(GstElement* pipeline, Handler handler, Handler onPost = {});
  ~BusWatch();
  BusWatch(const BusWatch&) = delete;
  BusWatch& operator=(const BusWatch&) = delete;

 private:
  struct Mailbox;

  GstBusHandle bus_;
  std::shared_ptr<Mailbox> mailbox_;
  std::thread thread_;
};

}  // namespace zu::detail
