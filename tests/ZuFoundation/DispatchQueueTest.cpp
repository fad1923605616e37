#include "ZuFoundation/DispatchQueue.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(DispatchQueue, RunsTasksSeriallyInOrderOnItsOwnThread) {
  zu::DispatchQueue queue("test");
  std::vector<int> order;
  std::thread::id worker;
  for (int i = 0; i < 100; ++i) {
    queue.async([&, i] {
      order.push_back(i);
      worker = std::this_thread::get_id();
    });
  }
  queue.drain();
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(DispatchQueue, DestructionRunsWhatWasPosted) {
  int ran = 0;
  {
    zu::DispatchQueue queue("test");
    for (int i = 0; i < 10; ++i) queue.async([&] { ++ran; });
  }
  EXPECT_EQ(ran, 10);
}

TEST(DispatchQueue, MainQueueHandsTasksToTheHostDispatcher) {
  std::vector<zu::DispatchQueue::Task> handed;
  zu::DispatchQueue::setMainDispatcher(
      [&](zu::DispatchQueue::Task task) { handed.push_back(std::move(task)); });
  bool ran = false;
  zu::DispatchQueue::main().async([&] { ran = true; });
  ASSERT_EQ(handed.size(), 1U);
  EXPECT_FALSE(ran);
  handed.front()();
  EXPECT_TRUE(ran);
  zu::DispatchQueue::setMainDispatcher(nullptr);
  zu::DispatchQueue::main().sync([&] { ran = false; });
  EXPECT_FALSE(ran);
}

}  // namespace
