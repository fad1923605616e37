#include <gtest/gtest.h>

#include "KivMediaCaptureAndPlayViewController/fake/FakeCaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/FakeMediaPlayer.hpp"
#include "support/Completions.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using zutest::CallCounter;

TEST(FakeBackend, TheCameraMakesMovingFramesAndRecordsTimeOnItsOwnThread) {
  testing_support::TemporaryDirectory folder;
  zu::FakeCaptureDevice device({.framesPerSecond = 200, .frameWidth = 64, .frameHeight = 36});
  CallCounter frames;
  std::vector<std::uint8_t> first;
  bool moved = false;
  device.setPreviewFrameHandler([&](const zu::Image& frame) {
    if (first.empty()) {
      first.assign(frame.rgba().begin(), frame.rgba().end());
    } else if (!std::equal(first.begin(), first.end(), frame.rgba().begin())) {
      moved = true;
    }
    frames.called();
  });
  EXPECT_EQ(device.setupSession().state, zu::CaptureSessionState::running);
  const zu::URL clip = zu::URL::fileURLWithPath((folder.path() / "clip.mp4").string());
  CallCounter finished;
  device.startRecording(clip, [&](const zu::URL& url, const std::optional<zu::Error>& error) {
    EXPECT_EQ(url, clip);
    EXPECT_FALSE(error);
    finished.called();
  });
  ASSERT_TRUE(frames.waitFor(10));
  device.setPreviewFrameHandler(nullptr);
  const int afterRemoval = frames.count();
  EXPECT_TRUE(moved);
  device.stopRecording();
  EXPECT_EQ(finished.count(), 1);
  EXPECT_GT(device.recordedDuration(), 0);
  EXPECT_TRUE(zu::ZuFileManager::fileExists(clip));
  EXPECT_EQ(frames.count(), afterRemoval) << "a replaced handler is not called again";
}

TEST(FakeBackend, ThePlayerPlaysToTheEndOnItsOwnThread) {
  testing_support::TemporaryDirectory folder;
  const zu::URL clip = zu::URL::fileURLWithPath((folder.path() / "clip.mp4").string());
  testing_support::writeFile(clip.path(), "placeholder");
  zu::FakeMediaPlayer player({.duration = 0.2, .ticksPerSecond = 200});
  CallCounter ends;
  CallCounter failures;
  player.setEndOfItemHandler([&] { ends.called(); });
  player.setItemFailureHandler([&](const zu::Error&) { failures.called(); });
  player.replaceCurrentItem(clip);
  player.play();
  ASSERT_TRUE(ends.waitFor(1));
  EXPECT_FALSE(player.isPlaying());
  EXPECT_EQ(player.currentTime(), 0.2);
  EXPECT_EQ(ends.count(), 1);

  player.replaceCurrentItem(zu::URL::fileURLWithPath((folder.path() / "missing.mp4").string()));
  EXPECT_EQ(failures.count(), 1);
  EXPECT_FALSE(player.hasCurrentItem());
}

}  // namespace
