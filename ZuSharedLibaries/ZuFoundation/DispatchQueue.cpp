#include "ZuFoundation/DispatchQueue.hpp"

#include <future>
#include <utility>

namespace zu {

DispatchQueue::DispatchQueue(std::string label) : label_(std::move(label)) {}

DispatchQueue::~DispatchQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wakeUp_.notify_one();
  if (thread_.joinable()) thread_.join();
}

DispatchQueue& DispatchQueue::main() {
  // Never destroyed: tasks may still be posted while the process exits.
  static auto* queue = new DispatchQueue("com.zumbrel.main-queue");
  return *queue;
}

void DispatchQueue::setMainDispatcher(Dispatcher dispatcher) {
  DispatchQueue& queue = main();
  std::lock_guard lock(queue.mutex_);
  queue.dispatcher_ = std::move(dispatcher);
}

bool DispatchQueue::hasMainDispatcher() {
  DispatchQueue& queue = main();
  std::lock_guard lock(queue.mutex_);
  return static_cast<bool>(queue.dispatcher_);
}

void DispatchQueue::async(Task task) {
  std::unique_lock lock(mutex_);
  if (Dispatcher dispatcher = dispatcher_) {
    lock.unlock();
    return dispatcher(std::move(task));
  }
  tasks_.push_back(std::move(task));
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  lock.unlock();
  wakeUp_.notify_one();
}

void DispatchQueue::sync(const Task& task) {
  std::promise<void> done;
  async([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

void DispatchQueue::drain() {
  sync([] {});
}

void DispatchQueue::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wakeUp_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

}  // namespace zu
