#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/PlayerItem.hpp"

#include <gst/app/gstappsink.h>

#include <cmath>
#include <limits>
#include <utility>

#include "ZuGStreamer/ZuGStreamer.hpp"

namespace zu::detail {

Result<std::unique_ptr<PlayerItem>> PlayerItem::make(const std::string& path, Events events) {
  auto pipeline = parseLaunch("filesrc name=source ! queue ! decodebin name=decoder");
  if (!pipeline) return pipeline.error();
  g_object_set(childByName(pipeline->get(), "source").get(), "location", path.c_str(), nullptr);
  std::unique_ptr<PlayerItem> item(new PlayerItem(std::move(*pipeline), std::move(events)));
  g_signal_connect(childByName(item->pipeline_.get(), "decoder").get(), "pad-added",
                   G_CALLBACK(&PlayerItem::padAdded), item.get());
  // Paused at the start: the first picture shows. A file that cannot be played fails now, on the bus.
  static_cast<void>(gst_element_set_state(item->pipeline_.get(), GST_STATE_PAUSED));
  return item;
}

PlayerItem::PlayerItem(GstElementHandle pipeline, Events events)
    : pipeline_(std::move(pipeline)),
      events_(std::move(events)),
      busWatch_(std::make_unique<BusWatch>(pipeline_.get(),
                                           [this](GstMessage* message) { handleMessage(message); })) {}

PlayerItem::~PlayerItem() {
  static_cast<void>(gst_element_set_state(pipeline_.get(), GST_STATE_NULL));
  busWatch_.reset();
}

void PlayerItem::padAdded(GstElement* /*decoder*/, GstPad* pad, gpointer self) {
  auto& item = *static_cast<PlayerItem*>(self);
  const GstCapsHandle caps(gst_pad_get_current_caps(pad));
  if (!caps || gst_caps_is_empty(caps.get())) return;
  auto made = item.output(gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)));
  if (!made || !*made) return;  // a missing element fails the item on the bus when nothing plays
  GstElement* output = made->get();
  gst_bin_add(GST_BIN(item.pipeline_.get()), output);
  const GstPadHandle input(gst_element_get_static_pad(output, "sink"));
  static_cast<void>(gst_pad_link(pad, input.get()));
  gst_element_sync_state_with_parent(output);
}

Result<GstElementHandle> PlayerItem::output(const std::string& mediaType) {
  const bool video = mediaType.starts_with("video/");
  if (!video && !mediaType.starts_with("audio/")) return GstElementHandle();
  if ((video ? hasVideo_ : hasAudio_).exchange(true)) return GstElementHandle();
  // Pictures are shown in time; the sound plays wherever the default output is (nowhere on a machine
  // without one: the automatic sink then stands in with a silent one).
  auto bin =
      parseBin(video ? "videoconvert name=input ! video/x-raw,format=RGBA ! appsink name=frames sync=true"
                     : "audioconvert name=input ! audioresample ! autoaudiosink");
  if (!bin) return bin;
  exposePad(bin->get(), childByName(bin->get(), "input").get(), "sink", "sink");
  if (!video) return bin;
  GstAppSinkCallbacks callbacks{};
  callbacks.new_preroll = [](GstAppSink* sink, gpointer self) {
    return newPicture(GST_ELEMENT(sink), true, self);
  };
  callbacks.new_sample = [](GstAppSink* sink, gpointer self) {
    return newPicture(GST_ELEMENT(sink), false, self);
  };
  gst_app_sink_set_callbacks(GST_APP_SINK(childByName(bin->get(), "frames").get()), &callbacks, this,
                             nullptr);
  return bin;
}

void PlayerItem::play() { static_cast<void>(gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING)); }

void PlayerItem::pause() { static_cast<void>(gst_element_set_state(pipeline_.get(), GST_STATE_PAUSED)); }

void PlayerItem::seek(double toSeconds) {
  ended_ = false;
  const auto position = static_cast<gint64>(std::llround(std::max(0.0, toSeconds) * GST_SECOND));
  static_cast<void>(gst_element_seek_simple(
      pipeline_.get(), GST_FORMAT_TIME,
      static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE), position));
}

double PlayerItem::currentTime() const {
  gint64 position = 0;
  if (!gst_element_query_position(pipeline_.get(), GST_FORMAT_TIME, &position) || position < 0)
    return std::numeric_limits<double>::quiet_NaN();
  return seconds(static_cast<GstClockTime>(position));
}

GstFlowReturn PlayerItem::newPicture(GstElement* sink, bool preroll, gpointer self) {
  auto* appsink = GST_APP_SINK(sink);
  const GstSampleHandle sample(preroll ? gst_app_sink_pull_preroll(appsink)
                                       : gst_app_sink_pull_sample(appsink));
  if (!sample) return GST_FLOW_OK;
  if (auto frame = imageFromSample(sample.get())) static_cast<PlayerItem*>(self)->events_.frame(*frame);
  return GST_FLOW_OK;
}

void PlayerItem::handleMessage(GstMessage* message) {
  switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
      if (!failed_.exchange(true)) events_.failure(errorFromMessage(message));
      break;
    case GST_MESSAGE_EOS:
      if (!ended_.exchange(true)) events_.end();
      break;
    default:
      break;
  }
}

}  // namespace zu::detail
