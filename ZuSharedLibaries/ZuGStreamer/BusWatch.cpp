#include "ZuGStreamer/BusWatch.hpp"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace zu::detail {

/// What the bus's posting threads and the watch's thread share. It outlives the watch while a posting
/// thread still holds it.
struct BusWatch::Mailbox {
  Handler onPost;
  std::mutex mutex;
  std::condition_variable wakeUp;
  std::deque<GstMessageHandle> messages;
  bool stopping = false;

  static GstBusSyncReply post(GstBus* /*bus*/, GstMessage* message, gpointer data) {
    Mailbox& mailbox = **static_cast<std::shared_ptr<Mailbox>*>(data);
    if (mailbox.onPost) mailbox.onPost(message);
    {
      std::lock_guard lock(mailbox.mutex);
      if (mailbox.stopping) return GST_BUS_DROP;
      mailbox.messages.emplace_back(gst_message_ref(message));
    }
    mailbox.wakeUp.notify_one();
    return GST_BUS_DROP;
  }
};

BusWatch::BusWatch(GstElement* pipeline, Handler handler, Handler onPost)
    : bus_(gst_element_get_bus(pipeline)), mailbox_(std::make_shared<Mailbox>()) {
  mailbox_->onPost = std::move(onPost);
  // The bus keeps its own reference to the mailbox until it drops the handler and no post still uses it.
  gst_bus_set_sync_handler(bus_.get(), &Mailbox::post, new std::shared_ptr<Mailbox>(mailbox_),
                           [](gpointer data) { delete static_cast<std::shared_ptr<Mailbox>*>(data); });
  thread_ = std::thread([mailbox = mailbox_, handler = std::move(handler)] {
    std::unique_lock lock(mailbox->mutex);
    while (true) {
      mailbox->wakeUp.wait(lock, [&] { return mailbox->stopping || !mailbox->messages.empty(); });
      if (mailbox->stopping) return;
      GstMessageHandle message = std::move(mailbox->messages.front());
      mailbox->messages.pop_front();
      lock.unlock();
      handler(message.get());
      lock.lock();
    }
  });
}

BusWatch::~BusWatch() {
  gst_bus_set_sync_handler(bus_.get(), nullptr, nullptr, nullptr);
  {
    std::lock_guard lock(mailbox_->mutex);
    mailbox_->stopping = true;
    mailbox_->messages.clear();
  }
  mailbox_->wakeUp.notify_one();
  thread_.join();
}

}  // namespace zu::detail
