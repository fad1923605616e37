#pragma once

#include <gst/gst.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuGStreamer/BusWatch.hpp"
#include "ZuGStreamer/GstHandles.hpp"
#include "ZuImage/Image.hpp"

namespace zu::detail {

/**
 * One file being played: the file read through a queue into `decodebin`, whose first video stream ends in
 * an application sink (RGBA pictures) and whose first audio stream goes to the default output. It starts
 * paused at the beginning, showing the first picture.
 *
 * The queue makes the demuxer parse in push mode, from data the queue hands it once it is set up. In pull
 * mode it reads the file on a task of its own that may fail while `decodebin` is still setting it up, and
 * `decodebin` drops the errors of that moment: a broken file would then neither play nor fail.
 *
 * @par Thread Safety
 * Operations may be called from any thread, one at a time. The events run on GStreamer's threads: the
 * end once per pass (again only after a seek), the failure once.
 */
class PlayerItem {
 public:
  struct Events {
    std::function<void(const Image& frame)> frame;
    std::function<void()> end;
    std::function<void(const Error& error)> failure;
  };

  static Result<std::unique_ptr<PlayerItem>> make(const std::string& path, Events events);
  ~PlayerItem();
  PlayerItem(const PlayerItem&) = delete;
  PlayerItem& operator=(const PlayerItem&) = delete;

  void play();
  void pause();
  void seek(double toSeconds);
  /// Seconds from the start; not a finite number when unknown.
  double currentTime() const;

 private:
  PlayerItem(GstElementHandle pipeline, Events events);
  static void padAdded(GstElement* decoder, GstPad* pad, gpointer self);
  /// The output for a decoded stream of `mediaType` ("video/x-raw", "audio/x-raw"); nothing for other
  /// streams and for a second stream of a kind.
  Result<GstElementHandle> output(const std::string& mediaType);
  static GstFlowReturn newPicture(GstElement* sink, bool preroll, gpointer self);
  void handleMessage(GstMessage* message);

  const GstElementHandle pipeline_;
  const Events events_;
  std::atomic<bool> hasVideo_ = false;
  std::atomic<bool> hasAudio_ = false;
  std::atomic<bool> ended_ = false;
  std::atomic<bool> failed_ = false;
  std::unique_ptr<BusWatch> busWatch_;
};

}  // namespace zu::detail
