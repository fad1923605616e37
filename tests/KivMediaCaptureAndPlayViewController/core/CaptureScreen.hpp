#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "KivMediaCaptureAndPlayViewController/fake/FakeCaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/FakeMediaPlayer.hpp"
#include "support/CaptureTestSupport.hpp"
#include "support/TemporaryDirectory.hpp"

namespace testing_support {

using State = Controller::_UIState;
using ButtonType = Controller::_ButtonType;
using ControlButtonType = Controller::_ControlButtonType;
using MediaType = Controller::MediaType;
using ControlType = zu::BottomControlsVisibility::ControlType;

/// 2020-03-01 23:30:00 GMT: new files are named "20200301_233000".
constexpr zu::Date kCaptureTime = zu::Date::fromTimeIntervalSince1970(1583105400);

/// A capture screen on fakes, in a fresh media folder; everything runs on the test's thread.
class CaptureScreen {
 public:
  struct Options {
    /// A file in the media folder to review, with its bytes (none: the file does not exist).
    std::optional<std::string> fileName{};
    std::optional<std::string> fileBytes{};
    bool autoplay = false;
    MediaType defaultMediaType = MediaType::video;
    zu::FakeCaptureDevice::Settings device{};
  };

  explicit CaptureScreen(const Options& options);
  CaptureScreen() : CaptureScreen(Options{}) {}

  zu::URL folderURL() const { return zu::URL::fileURLWithPath(folder.path().string(), true); }
  zu::URL fileURL(const std::string& name) const { return folderURL().appendingPathComponent(name); }

  void load() { controller->viewDidLoad(); }
  /// Loads, appears and settles.
  void open();
  /// Runs the session and main queues until both are empty.
  void settle();
  /// Presses a button of the screen, then settles.
  void press(ButtonType type);
  /// Picks a segment of the screen's own segmented control, like a user.
  void pickSegment(int index);
  /// Opens, then drives the screen into `state` through the user's steps.
  void driveTo(State state);

  const zu::Button& button(ButtonType type) const;
  /// The bottom controls that show, read from the views.
  std::set<ControlType> shownControls() const;

  TemporaryDirectory folder;
  std::shared_ptr<zu::FakeCaptureDevice> device;
  std::shared_ptr<zu::FakeMediaPlayer> player = std::make_shared<zu::FakeMediaPlayer>();
  std::shared_ptr<ManualTimerSource> timers = std::make_shared<ManualTimerSource>();
  ManualQueue mainQueue;
  ManualQueue sessionQueue;
  /// Whether the image decoder accepts photo bytes (JPEG ones only).
  bool decodesImages = true;
  RecordingDelegate delegate;
  std::unique_ptr<Controller> controller;
};

}  // namespace testing_support
