#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "KivMediaCaptureAndPlayViewController/core/CaptureScreen.hpp"
#include "KivMediaCaptureAndPlayViewController/core/LocalizedStrings.hpp"

namespace {

using namespace testing_support;
using Status = zu::CaptureAuthorizationStatus;
using zu::SetupError;

struct AuthorizationRow {
  Status status;
  bool grantsAccess;
  bool setsUp;
};

class CaptureScreenAuthorization : public testing::TestWithParam<AuthorizationRow> {};

TEST_P(CaptureScreenAuthorization, SetsTheSessionUpOnlyWithCameraAccess) {
  const AuthorizationRow& row = GetParam();
  CaptureScreen screen({.device = {.authorizationStatus = row.status, .grantsAccess = row.grantsAccess}});
  screen.load();
  screen.controller->viewDidAppear();
  EXPECT_FALSE(screen.controller->_mainControlButton.isEnabled);
  screen.mainQueue.runAll();
  EXPECT_EQ(screen.device->record().setupCount, 0) << "set-up runs on the session queue";
  screen.settle();

  EXPECT_EQ(screen.device->record().setupCount, row.setsUp ? 1 : 0);
  EXPECT_EQ(screen.device->isRunning(), row.setsUp);
  EXPECT_EQ(screen.controller->sessionState(),
            row.setsUp ? zu::CaptureSessionState::running : zu::CaptureSessionState::stopped);
  EXPECT_EQ(screen.controller->_mainControlButton.isEnabled, row.setsUp);
  EXPECT_EQ(screen.controller->_flashButton.isHidden, !row.setsUp);
  EXPECT_EQ(screen.controller->_mediaPreviewView.previewLayer.has_value(), row.setsUp);
  if (row.setsUp) {
    EXPECT_TRUE(screen.delegate.failures.empty());
  } else {
    ASSERT_EQ(screen.delegate.failures.size(), 1U);
    EXPECT_EQ(screen.delegate.failures[0], SetupError::cameraAccessDenied());
  }
}

INSTANTIATE_TEST_SUITE_P(Table, CaptureScreenAuthorization,
                         testing::Values(AuthorizationRow{Status::notDetermined, true, true},
                                         AuthorizationRow{Status::notDetermined, false, false},
                                         AuthorizationRow{Status::authorized, false, true},
                                         AuthorizationRow{Status::denied, true, false},
                                         AuthorizationRow{Status::restricted, true, false}));

TEST(CaptureScreenSession, SetUpOnceAndReusedWhenCaptureStartsAgain) {
  CaptureScreen screen;
  screen.driveTo(State::readyToPlayback);
  screen.press(ButtonType::trash);
  EXPECT_EQ(screen.controller->state(), State::readyToCapture);
  EXPECT_EQ(screen.device->record().setupCount, 1);
  EXPECT_TRUE(screen.controller->_mainControlButton.isEnabled);
  EXPECT_FALSE(screen.controller->_flashButton.isHidden);
}

TEST(CaptureScreenSession, SetUpErrorsReachTheHostWithTheirTexts) {
  const zu::Error busy("NSPOSIXErrorDomain", 16);
  const std::vector<std::pair<SetupError, std::string>> errors = {
      {SetupError::cameraAccessDenied(), zu::localizedCaptureString("CameraAccessDeniedErrorDescription")},
      {SetupError::noBackWideAngleCamera(),
       zu::localizedCaptureString("NoBackWideAngleCameraErrorDescription")},
      {SetupError::videoInputFailed(busy),
       "Error setting device video input: " + busy.localizedDescription()},
      {SetupError::audioInputFailed(busy),
       "Error setting device audio input: " + busy.localizedDescription()},
      {SetupError::cameraInputRefused(), "Recording session failed to add camera as an input"},
      {SetupError::movieOutputRefused(), "Recording session failed to file object as output"},
  };
  for (const auto& [error, text] : errors) EXPECT_EQ(error.errorDescription(), text);
  EXPECT_EQ(zu::localizedCaptureString("NoBackWideAngleCameraErrorDescription").rfind("No camera", 0), 0U);
  EXPECT_EQ(zu::localizedCaptureString("UnknownKey"), "UnknownKey");

  CaptureScreen screen({.device = {.setupError = SetupError::cameraInputRefused()}});
  screen.open();
  ASSERT_EQ(screen.delegate.failures.size(), 1U);
  EXPECT_EQ(screen.delegate.failures[0], SetupError::cameraInputRefused());
  EXPECT_EQ(screen.controller->sessionState(), zu::CaptureSessionState::error);
  EXPECT_EQ(screen.controller->sessionSetupErrorDescription(),
            "Recording session failed to add camera as an input");
  EXPECT_FALSE(screen.controller->_mainControlButton.isEnabled);
  EXPECT_TRUE(screen.controller->_flashButton.isHidden);
}

TEST(CaptureScreenSession, FlashUsesTheTorchInVideoModeAndTheFlashModeForPhotos) {
  CaptureScreen video;
  video.open();
  video.press(ButtonType::flash);
  EXPECT_EQ(video.device->record().torchLevel, 1.0F);
  video.press(ButtonType::flash);
  EXPECT_FALSE(video.device->record().torchLevel);
  EXPECT_EQ(video.device->record().torchChangeCount, 2);
  EXPECT_EQ(video.device->record().unlockedChangeCount, 0);
  EXPECT_FALSE(video.device->record().isLocked);

  CaptureScreen photo({.defaultMediaType = MediaType::photo});
  photo.open();
  photo.press(ButtonType::flash);
  EXPECT_EQ(photo.device->record().torchChangeCount, 0)
      << "turning the flash on in photo mode leaves the torch";
  photo.press(ButtonType::control);
  EXPECT_EQ(photo.device->record().lastPhotoFlashMode, zu::CaptureFlashMode::on);
  EXPECT_FALSE(photo.controller->flashOn()) << "a photo turns the flash off";
  EXPECT_EQ(photo.device->record().torchChangeCount, 1) << "turning it off always sets the torch off";

  CaptureScreen noTorch({.device = {.hasTorch = false}});
  noTorch.open();
  noTorch.press(ButtonType::flash);
  CaptureScreen lockFails({.device = {.lockError = zu::Error("NSPOSIXErrorDomain", 16)}});
  lockFails.open();
  lockFails.press(ButtonType::flash);
  for (const CaptureScreen* screen : {&noTorch, &lockFails}) {
    EXPECT_EQ(screen->device->record().torchChangeCount, 0);
    EXPECT_TRUE(screen->controller->flashOn());
    EXPECT_EQ(screen->controller->_flashButton.imageName, "GlimmoFlashButton");
  }
}

TEST(CaptureScreenSession, PinchZoomsWithinTheCamerasRange) {
  using Pinch = zu::PinchGestureRecognizer;
  CaptureScreen screen({.device = {.maxAvailableVideoZoomFactor = 4}});
  screen.open();
  const auto pinch = [&](Pinch::State state, double scale) {
    screen.controller->_zoomPinchGesture({state, scale});
    return screen.device->record().videoZoomFactor;
  };
  EXPECT_EQ(pinch(Pinch::State::changed, 3), 1) << "a change without a start does nothing";
  pinch(Pinch::State::began, 1);
  EXPECT_EQ(pinch(Pinch::State::changed, 2), 2);
  EXPECT_EQ(pinch(Pinch::State::changed, 9), 4);
  EXPECT_EQ(pinch(Pinch::State::changed, 0.1), 1);
  EXPECT_EQ(pinch(Pinch::State::changed, std::numeric_limits<double>::quiet_NaN()), 1);
  EXPECT_EQ(pinch(Pinch::State::changed, 1.5), 1.5);
  pinch(Pinch::State::ended, 1.5);
  pinch(Pinch::State::began, 1);
  EXPECT_EQ(pinch(Pinch::State::changed, 2), 3) << "a new pinch starts from the current zoom";
  pinch(Pinch::State::cancelled, 1);
  EXPECT_EQ(pinch(Pinch::State::changed, 1.2), 3);
  EXPECT_EQ(screen.device->record().unlockedChangeCount, 0);
}

TEST(CaptureScreenSession, RecordingNamesTheFileRefreshesTheLabelAndResetsFlashAndZoom) {
  CaptureScreen screen;
  screen.open();
  screen.press(ButtonType::flash);
  screen.controller->_zoomPinchGesture({zu::PinchGestureRecognizer::State::began, 1});
  screen.controller->_zoomPinchGesture({zu::PinchGestureRecognizer::State::changed, 2.5});
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::recording);
  EXPECT_EQ(screen.device->record().lastRecordingURL, screen.fileURL("20200301_233000.mp4"));
  ASSERT_EQ(screen.timers->validCount(), 1);
  EXPECT_EQ(screen.timers->timers().back()->interval, 0.33);

  screen.device->advanceRecording(75.4);
  screen.timers->fire();
  EXPECT_EQ(screen.controller->_timeLabel.text, "00:01:15");
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::readyToPlayback);
  EXPECT_EQ(screen.controller->fileURL(), screen.fileURL("20200301_233000.mp4"));
  EXPECT_TRUE(zu::ZuFileManager::fileExists(*screen.controller->fileURL()));
  EXPECT_EQ(screen.player->currentItem(), screen.controller->fileURL());
  EXPECT_TRUE(screen.controller->_playerLayer);
  EXPECT_EQ(screen.controller->_timeLabel.text, "00:00:00");
  EXPECT_EQ(screen.timers->validCount(), 0);
  EXPECT_FALSE(screen.controller->flashOn());
  EXPECT_FALSE(screen.device->record().torchLevel);
  EXPECT_EQ(screen.device->record().videoZoomFactor, 1);
}

TEST(CaptureScreenSession, AFailedRecordingReturnsToCapture) {
  CaptureScreen screen({.device = {.recordingError = zu::Error("NSPOSIXErrorDomain", 28)}});
  screen.driveTo(State::recording);
  screen.press(ButtonType::control);
  EXPECT_EQ(screen.controller->state(), State::readyToCapture);
  EXPECT_FALSE(screen.controller->fileURL());
  EXPECT_EQ(screen.timers->validCount(), 0);
  EXPECT_TRUE(screen.delegate.dismissals.empty() && screen.delegate.failures.empty());
}

TEST(CaptureScreenSession, PhotosAreNamedByTheSecondAndReplaceAFileOfTheSameName) {
  CaptureScreen screen({.defaultMediaType = MediaType::photo});
  const zu::URL photo = screen.fileURL("20200301_233000.jpg");
  writeFile(photo.path(), "taken earlier in the same second");
  screen.driveTo(State::imageDisplay);
  EXPECT_EQ(screen.controller->fileURL(), photo);
  EXPECT_EQ(readFile(photo.path()).substr(0, 2), "\xFF\xD8");
  ASSERT_TRUE(screen.controller->_photoImageView);
  EXPECT_EQ(screen.controller->_photoImageView->superview(), &screen.controller->_mediaPreviewView);
  EXPECT_EQ(screen.controller->_mediaPreviewView.constraints.size(), 4U);

  screen.press(ButtonType::trash);
  EXPECT_FALSE(zu::ZuFileManager::fileExists(photo));
  EXPECT_FALSE(screen.controller->_photoImageView);
  EXPECT_TRUE(screen.controller->_mediaPreviewView.constraints.empty());
}

TEST(CaptureScreenSession, APhotoThatFailsLeavesTheScreenReadyToCapture) {
  CaptureScreen error(
      {.defaultMediaType = MediaType::photo, .device = {.photoError = zu::Error("Camera", 1)}});
  CaptureScreen notAnImage({.defaultMediaType = MediaType::photo});
  notAnImage.decodesImages = false;
  CaptureScreen cannotWrite({.defaultMediaType = MediaType::photo});
  std::filesystem::remove_all(cannotWrite.folder.path());
  for (CaptureScreen* screen : {&error, &notAnImage, &cannotWrite}) {
    screen->open();
    screen->press(ButtonType::control);
    EXPECT_EQ(screen->controller->state(), State::readyToCapture);
    EXPECT_FALSE(screen->controller->fileURL());
    EXPECT_FALSE(zu::ZuFileManager::fileExists(screen->fileURL("20200301_233000.jpg")));
  }
}

}  // namespace
