#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "KivMediaCaptureAndPlayViewController/core/CaptureScreen.hpp"

namespace {

using namespace testing_support;
using Height = zu::BottomControlsVisibility::_Const::BottomControlsHeightConstraint;
using Distance = zu::BottomControlsVisibility::_Const::BottomControlsSideButtonsBottomConstraint;

constexpr State kAllStates[] = {State::disabled,        State::readyToCapture, State::recording,
                                State::readyToPlayback, State::playing,        State::paused,
                                State::ended,           State::imageDisplay};

TEST(CaptureScreenStateMachine, RawValuesAndImageNames) {
  EXPECT_EQ(zu::rawValue(Controller::DismissReason::userNotAllowedToUseCamera), 3);
  EXPECT_EQ(zu::rawValue(State::imageDisplay), 7);
  EXPECT_EQ(zu::rawValue(ButtonType::confirm), 4);
  EXPECT_EQ(zu::rawValue(ControlButtonType::photo), 5);
  EXPECT_EQ(zu::fromRawValue<MediaType>(1), MediaType::photo);
  EXPECT_FALSE(zu::fromRawValue<ButtonType>(5));
  EXPECT_FALSE(zu::fromRawValue<MediaType>(-1));

  const std::vector<std::pair<ControlButtonType, const char*>> images = {
      {ControlButtonType::record, "GlimmoRecordButton"}, {ControlButtonType::stop, "GlimmoStopButton"},
      {ControlButtonType::play, "GlimmoPlayButton"},     {ControlButtonType::pause, "GlimmoPauseButton"},
      {ControlButtonType::replay, "GlimmoPlayButton"},   {ControlButtonType::photo, "GlimmoPhotoButton"}};
  for (const auto& [type, name] : images) EXPECT_EQ(Controller::imageName(type), name);
  EXPECT_EQ(Controller::flashImageName(true), "GlimmoFlashButton");
  EXPECT_EQ(Controller::flashImageName(false), "GlimmoFlashOffButton");
}

TEST(CaptureScreenStateMachine, LoadingSetsUpButtonsAndEntersDisabled) {
  CaptureScreen screen;
  screen.load();
  const Controller& controller = *screen.controller;
  for (const ButtonType type : {ButtonType::dismiss, ButtonType::control, ButtonType::trash,
                                ButtonType::flash, ButtonType::confirm}) {
    EXPECT_EQ(screen.button(type).tag, zu::rawValue(type));
  }
  EXPECT_EQ(controller.state(), State::disabled);
  EXPECT_EQ(controller._mainControlButton.imageName, "GlimmoRecordButton");
  EXPECT_EQ(controller._flashButton.imageName, "GlimmoFlashOffButton");
  EXPECT_TRUE(controller._flashButton.isHidden);
  EXPECT_EQ(controller._videoPhotoSegmentedControl.selectedSegmentIndex, 0);
  EXPECT_EQ(controller._videoPhotoSegmentedControl.segmentTitles,
            (std::vector<std::string>{"Video", "Photo"}));
  EXPECT_TRUE(screen.shownControls().empty());
  EXPECT_EQ(controller._bottomControlsHeightConstraint.constant, Height::hidden);
  EXPECT_TRUE(controller.prefersStatusBarHidden());
  EXPECT_EQ(screen.device->record().setupCount, 0);
}

struct FirstState {
  std::optional<std::string> fileName;
  MediaType defaultMediaType;
  MediaType mediaType;
  State state;
};

class CaptureScreenFirstState : public testing::TestWithParam<FirstState> {};

TEST_P(CaptureScreenFirstState, FollowsTheFileAndItsExtension) {
  const FirstState& row = GetParam();
  CaptureScreen screen(
      {.fileName = row.fileName, .fileBytes = "\xFF\xD8 bytes", .defaultMediaType = row.defaultMediaType});
  screen.open();
  EXPECT_EQ(screen.controller->mediaType(), row.mediaType);
  EXPECT_EQ(screen.controller->state(), row.state);
  EXPECT_EQ(screen.controller->newCapture(), !row.fileName);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CaptureScreenFirstState,
    testing::Values(FirstState{std::nullopt, MediaType::video, MediaType::video, State::readyToCapture},
                    FirstState{std::nullopt, MediaType::photo, MediaType::photo, State::readyToCapture},
                    FirstState{"clip.mp4", MediaType::photo, MediaType::video, State::readyToPlayback},
                    FirstState{"clip.unknown", MediaType::photo, MediaType::video, State::readyToPlayback},
                    FirstState{"photo.JPG", MediaType::video, MediaType::photo, State::imageDisplay},
                    FirstState{"photo.heic", MediaType::video, MediaType::photo, State::imageDisplay}));

// One row per state, reached through the user's steps on a new capture the host lets the user delete.
struct StateRow {
  State state;
  std::set<ControlType> shown;
  ControlButtonType mainControl;
  double height;
  double sideDistance;
  bool flashHidden;
  State afterControlPress;
};

class CaptureScreenStates : public testing::TestWithParam<StateRow> {};

TEST_P(CaptureScreenStates, ShowTheirControlsAndAnswerTheControlButton) {
  const StateRow& row = GetParam();
  CaptureScreen screen;
  screen.driveTo(row.state);
  const Controller& controller = *screen.controller;
  ASSERT_EQ(controller.state(), row.state);
  EXPECT_EQ(screen.shownControls(), row.shown);
  EXPECT_EQ(controller.bottomControlsVisibility().visibleControls, row.shown);
  EXPECT_EQ(controller.mainControlButtonType(), row.mainControl);
  EXPECT_EQ(controller._mainControlButton.imageName, Controller::imageName(row.mainControl));
  EXPECT_EQ(controller._bottomControlsHeightConstraint.constant, row.height);
  EXPECT_EQ(controller._bottomControlsSideButtonsBottomtConstraint.constant, row.sideDistance);
  EXPECT_EQ(controller._flashButton.isHidden, row.flashHidden);

  screen.press(ButtonType::control);
  EXPECT_EQ(controller.state(), row.afterControlPress);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CaptureScreenStates,
    testing::Values(StateRow{State::disabled,
                             {},
                             ControlButtonType::record,
                             Height::hidden,
                             Distance::onlySideButtons,
                             true,
                             State::disabled},
                    StateRow{State::readyToCapture,
                             {ControlType::segmented, ControlType::main},
                             ControlButtonType::record,
                             Height::full,
                             Distance::withOtherButtons,
                             false,
                             State::recording},
                    StateRow{State::recording,
                             {ControlType::main},
                             ControlButtonType::stop,
                             Height::noSegmentedControl,
                             Distance::withOtherButtons,
                             false,
                             State::readyToPlayback},
                    StateRow{State::readyToPlayback,
                             {ControlType::trash, ControlType::confirm, ControlType::main},
                             ControlButtonType::play,
                             Height::noSegmentedControl,
                             Distance::withOtherButtons,
                             true,
                             State::playing},
                    StateRow{State::playing,
                             {ControlType::main},
                             ControlButtonType::pause,
                             Height::noSegmentedControl,
                             Distance::withOtherButtons,
                             true,
                             State::paused},
                    StateRow{State::paused,
                             {ControlType::trash, ControlType::confirm, ControlType::main},
                             ControlButtonType::play,
                             Height::noSegmentedControl,
                             Distance::withOtherButtons,
                             true,
                             State::playing},
                    StateRow{State::ended,
                             {ControlType::trash, ControlType::confirm, ControlType::main},
                             ControlButtonType::replay,
                             Height::noSegmentedControl,
                             Distance::withOtherButtons,
                             true,
                             State::playing},
                    StateRow{State::imageDisplay,
                             {ControlType::trash, ControlType::confirm},
                             ControlButtonType::photo,
                             Height::onlySideButtons,
                             Distance::onlySideButtons,
                             true,
                             State::imageDisplay}));

TEST(CaptureScreenStateMachine, DismissConfirmFlashAndTrashInEveryState) {
  for (const State state : kAllStates) {
    SCOPED_TRACE(zu::rawValue(state));
    for (const auto& [button, reason] : {std::pair{ButtonType::dismiss, Controller::DismissReason::close},
                                         std::pair{ButtonType::confirm, Controller::DismissReason::save}}) {
      CaptureScreen screen;
      screen.driveTo(state);
      screen.press(ButtonType::flash);
      const auto fileURL = screen.controller->fileURL();
      screen.press(button);
      ASSERT_EQ(screen.delegate.dismissals.size(), 1U);
      EXPECT_EQ(screen.delegate.dismissals[0].reason, reason);
      EXPECT_EQ(screen.delegate.dismissals[0].fileURL, fileURL);
      EXPECT_FALSE(screen.controller->flashOn());
      EXPECT_EQ(screen.controller->state(), state);
    }

    CaptureScreen screen;
    screen.driveTo(state);
    screen.press(ButtonType::flash);
    EXPECT_TRUE(screen.controller->flashOn());
    EXPECT_EQ(screen.controller->_flashButton.imageName, "GlimmoFlashButton");
    screen.press(ButtonType::flash);
    EXPECT_FALSE(screen.controller->flashOn());

    const auto fileURL = screen.controller->fileURL();
    screen.press(ButtonType::trash);
    EXPECT_EQ(screen.controller->state(), State::readyToCapture);
    EXPECT_FALSE(screen.controller->fileURL());
    EXPECT_EQ(screen.delegate.deleted.size(), fileURL ? 1U : 0U);
    if (fileURL) {
      EXPECT_FALSE(zu::ZuFileManager::fileExists(*fileURL));
    }
  }
}

TEST(CaptureScreenStateMachine, AFileOpenedForReviewOffersNoConfirmAndTrashAsTheHostSays) {
  for (const bool canDelete : {true, false}) {
    CaptureScreen screen({.fileName = "photo.jpg", .fileBytes = "\xFF\xD8"});
    screen.delegate.canDelete = canDelete;
    screen.open();
    EXPECT_EQ(screen.controller->state(), State::imageDisplay);
    EXPECT_EQ(screen.shownControls(), canDelete ? std::set{ControlType::trash} : std::set<ControlType>{});
    EXPECT_EQ(screen.controller->_bottomControlsHeightConstraint.constant,
              canDelete ? Height::onlySideButtons : Height::hidden);
  }
}

TEST(CaptureScreenStateMachine, AFileThatCannotBeShownOrPlayedReturnsToCapture) {
  CaptureScreen photo({.fileName = "missing.jpg"});
  photo.open();
  EXPECT_EQ(photo.controller->state(), State::readyToCapture);

  CaptureScreen notAnImage({.fileName = "text.jpg", .fileBytes = "not a picture"});
  notAnImage.open();
  EXPECT_EQ(notAnImage.controller->state(), State::readyToCapture);

  CaptureScreen video({.fileName = "missing.mp4"});
  video.open();
  EXPECT_EQ(video.controller->state(), State::readyToCapture);
  EXPECT_FALSE(video.player->hasCurrentItem());
  EXPECT_FALSE(video.controller->_playerLayer);
}

TEST(CaptureScreenStateMachine, AutoplayPlaysOnce) {
  CaptureScreen screen({.fileName = "clip.mp4", .fileBytes = "video", .autoplay = true});
  screen.open();
  EXPECT_EQ(screen.controller->state(), State::playing);
  EXPECT_TRUE(screen.player->isPlaying());
  EXPECT_FALSE(screen.controller->autoplay());
  EXPECT_EQ(screen.controller->mainControlButtonType(), ControlButtonType::pause);

  screen.press(ButtonType::trash);  // hidden while playing, but a press still deletes and starts a capture
  screen.press(ButtonType::control);
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::readyToPlayback);
  EXPECT_FALSE(screen.player->isPlaying());
}

TEST(CaptureScreenStateMachine, ReplayStartsAgainFromTheBeginning) {
  CaptureScreen screen;
  screen.driveTo(State::ended);
  EXPECT_EQ(screen.controller->_mainControlButton.imageName, "GlimmoPlayButton");
  EXPECT_EQ(screen.timers->validCount(), 0);
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::playing);
  EXPECT_EQ(screen.player->currentTime(), 0);
  EXPECT_EQ(screen.controller->_timeLabel.text, "00:00:00");
  EXPECT_EQ(screen.timers->validCount(), 1);

  CaptureScreen withoutItem;
  withoutItem.driveTo(State::ended);
  withoutItem.player->replaceCurrentItem(std::nullopt);
  withoutItem.press(ButtonType::control);
  EXPECT_EQ(withoutItem.controller->state(), State::ended);
}

TEST(CaptureScreenStateMachine, DisappearingPausesPlaybackStopsRecordingAndTurnsTheFlashOff) {
  CaptureScreen playing;
  playing.driveTo(State::playing);
  playing.press(ButtonType::flash);
  playing.controller->viewWillDisappear();
  EXPECT_EQ(playing.controller->state(), State::paused);
  EXPECT_FALSE(playing.player->isPlaying());
  EXPECT_EQ(playing.timers->validCount(), 0);
  EXPECT_FALSE(playing.controller->flashOn());

  CaptureScreen recording;
  recording.driveTo(State::recording);
  recording.controller->viewWillDisappear();
  recording.settle();
  EXPECT_FALSE(recording.device->isRecording());
  EXPECT_EQ(recording.controller->state(), State::readyToPlayback);
}

TEST(CaptureScreenStateMachine, MediaTypeChangeSwitchesControlTimeLabelAndFlash) {
  CaptureScreen screen;
  screen.open();
  screen.press(ButtonType::flash);
  screen.pickSegment(1);
  EXPECT_EQ(screen.controller->mediaType(), MediaType::photo);
  EXPECT_EQ(screen.controller->mainControlButtonType(), ControlButtonType::photo);
  EXPECT_TRUE(screen.controller->_timeLabel.isHidden);
  EXPECT_FALSE(screen.controller->flashOn());

  screen.press(ButtonType::flash);
  screen.pickSegment(0);
  EXPECT_EQ(screen.controller->mediaType(), MediaType::video);
  EXPECT_EQ(screen.controller->_videoPhotoSegmentedControl.selectedSegmentIndex, 0);
  EXPECT_EQ(screen.controller->mainControlButtonType(), ControlButtonType::record);
  EXPECT_FALSE(screen.controller->_timeLabel.isHidden);
  EXPECT_FALSE(screen.controller->flashOn());

  zu::SegmentedControl someoneElses = screen.controller->_videoPhotoSegmentedControl;
  someoneElses.selectedSegmentIndex = 1;
  screen.controller->_videoPhotoSegmentChanged(someoneElses);
  EXPECT_EQ(screen.controller->mediaType(), MediaType::video);
}

TEST(CaptureScreenStateMachine, PendingWorkIsDroppedWithTheScreen) {
  CaptureScreen screen;
  screen.load();
  screen.controller->viewDidAppear();
  screen.controller.reset();
  screen.settle();
  EXPECT_TRUE(screen.delegate.failures.empty());
  EXPECT_EQ(screen.device->record().setupCount, 0);

  CaptureScreen running;
  running.open();
  ASSERT_TRUE(running.device->isRunning());
  running.controller.reset();
  running.settle();
  EXPECT_FALSE(running.device->isRunning());
}

using CaptureScreenDeathTest = testing::Test;

TEST_F(CaptureScreenDeathTest, ProgrammingErrorsStopTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CaptureScreen screen;
  screen.open();
  zu::Button unknown;
  unknown.tag = 5;
  EXPECT_DEATH(screen.controller->_buttonPressed(unknown), "Unknown button tag 5");
  unknown.tag = -1;
  EXPECT_DEATH(screen.controller->_buttonPressed(unknown), "Unknown button tag -1");
  EXPECT_DEATH(screen.pickSegment(2), "Unknown segment index 2");
  EXPECT_DEATH(Controller(screen.delegate, screen.folderURL(), std::nullopt, false, {}),
               "The capture screen needs a capture device");
}

}  // namespace
