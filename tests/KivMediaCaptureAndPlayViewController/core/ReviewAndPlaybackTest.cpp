#include <gtest/gtest.h>

#include <limits>

#include "KivMediaCaptureAndPlayViewController/core/CaptureScreen.hpp"

namespace {

using namespace testing_support;

struct TimeRow {
  double seconds;
  const char* text;
};

class CaptureScreenTimeLabel : public testing::TestWithParam<TimeRow> {};

TEST_P(CaptureScreenTimeLabel, ShowsWholeHoursMinutesAndSeconds) {
  CaptureScreen screen;
  screen.driveTo(State::recording);
  screen.device->advanceRecording(GetParam().seconds);
  screen.timers->fire();
  EXPECT_EQ(screen.controller->_timeLabel.text, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Table, CaptureScreenTimeLabel,
                         testing::Values(TimeRow{0, "00:00:00"}, TimeRow{75.4, "00:01:15"},
                                         TimeRow{59.999, "00:00:59"}, TimeRow{3725, "01:02:05"},
                                         TimeRow{360000, "100:00:00"}, TimeRow{1e12, "277777777:46:40"},
                                         TimeRow{-3, "00:00:00"}));

TEST(CaptureScreenReview, ANonNumericTimeLeavesTheLabel) {
  CaptureScreen screen;
  screen.driveTo(State::recording);
  screen.device->advanceRecording(5);
  screen.timers->fire();
  for (const double time :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
    screen.device->advanceRecording(time);
    screen.timers->fire();
    EXPECT_EQ(screen.controller->_timeLabel.text, "00:00:05");
  }
}

TEST(CaptureScreenReview, PlaybackFollowsThePlayersTimeUntilTheEnd) {
  CaptureScreen screen({.fileName = "clip.mp4", .fileBytes = "video"});
  screen.open();
  ASSERT_EQ(screen.controller->state(), State::readyToPlayback);
  ASSERT_TRUE(screen.controller->_playerLayer);
  EXPECT_FALSE(screen.controller->_playerLayer->frame.isEmpty()) << "the item's first frame shows";
  screen.press(ButtonType::control);
  screen.player->advance(1.5);
  screen.timers->fire();
  EXPECT_EQ(screen.controller->_timeLabel.text, "00:00:01");
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::paused);
  EXPECT_EQ(screen.timers->validCount(), 0);
  screen.press(ButtonType::control);
  screen.player->advance(10);
  screen.settle();
  EXPECT_EQ(screen.controller->state(), State::ended);
  EXPECT_EQ(screen.controller->_timeLabel.text, "00:00:03");
  EXPECT_EQ(screen.timers->validCount(), 0);
}

TEST(CaptureScreenReview, TheHostIsAskedOnceAboutEachFile) {
  CaptureScreen screen({.fileName = "clip.mp4", .fileBytes = "video"});
  const std::string reviewed = screen.fileURL("clip.mp4").absoluteString();
  screen.load();
  EXPECT_TRUE(screen.delegate.deletionQuestions.empty()) << "not asked before a review state";
  screen.controller->viewDidAppear();
  screen.settle();
  screen.press(ButtonType::control);
  screen.press(ButtonType::control);
  screen.delegate.canDelete = false;  // a later change of mind is not seen
  screen.press(ButtonType::control);
  screen.player->advance(10);
  screen.settle();
  EXPECT_EQ(screen.controller->state(), State::ended);
  EXPECT_EQ(screen.delegate.deletionQuestions, (std::map<std::string, int>{{reviewed, 1}}));
  EXPECT_EQ(screen.shownControls(), (std::set{ControlType::trash, ControlType::main}));

  screen.press(ButtonType::trash);
  EXPECT_EQ(screen.delegate.deleted, std::vector{screen.fileURL("clip.mp4")});
  EXPECT_FALSE(screen.player->hasCurrentItem());
  EXPECT_FALSE(screen.controller->_playerLayer);
  screen.press(ButtonType::control);
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::readyToPlayback);
  EXPECT_EQ(screen.delegate.deletionQuestions.size(), 2U);
  EXPECT_EQ(screen.shownControls(), (std::set{ControlType::confirm, ControlType::main}));
}

}  // namespace
