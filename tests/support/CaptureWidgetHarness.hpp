#pragma once

#include <QImage>
#include <QSize>
#include <QString>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "KivMediaCaptureAndPlayViewController/qt/KivMediaCaptureAndPlayWidget.hpp"
#include "support/CaptureTestSupport.hpp"
#include "support/TemporaryDirectory.hpp"

namespace testing_support {

using State = Controller::_UIState;
using MediaType = Controller::MediaType;

/// The names of the screen's controls, as the Qt view calls its widgets.
extern const std::set<QString> kAllControls;

/// The Qt capture screen on a given camera and player, in a fresh media folder, without animations. Tests and
/// benchmarks drive it like a user.
class CaptureWidgetHarness {
 public:
  struct Options {
    /// A file in the media folder to review, with its bytes (none: the file does not exist).
    std::optional<std::string> fileName{};
    std::optional<std::string> fileBytes{};
    bool autoplay = false;
    MediaType defaultMediaType = MediaType::video;
    bool hostLetsDelete = true;
    QSize size{1280, 720};
  };

  CaptureWidgetHarness(std::shared_ptr<zu::CaptureDevice> device, std::shared_ptr<zu::MediaPlayer> player,
                       const Options& options);

  Controller& controller() { return widget->controller(); }
  zu::URL folderURL() const { return zu::URL::fileURLWithPath(folder.path().string(), true); }

  /// Processes events until `condition` holds, for at most 30 seconds; whether it holds.
  static bool waitUntil(const std::function<bool()>& condition);
  bool waitForState(State state);
  /**
   * Shows the screen; for capture, waits until it can capture and shows a picture of the camera (whether it
   * does). `sendPicture` makes a camera that sends none by itself send one.
   */
  [[nodiscard]] bool showAndWaitForCamera(const std::function<void()>& sendPicture = {});

  QWidget* child(const QString& name) const { return widget->findChild<QWidget*>(name); }
  void click(const QString& name);
  /// A press on the segment at `index` of the segmented control, as a user's.
  void pickSegment(int index);
  void pinch(zu::PinchGestureRecognizer::State state, double scale);
  std::set<QString> visibleControls() const;
  /// Renders the screen into "<name>.png" under the build tree and returns the picture (a null one when it
  /// could not be saved).
  QImage screenshot(const QString& name) const;

  TemporaryDirectory folder;
  RecordingDelegate delegate;
  std::unique_ptr<zu::KivMediaCaptureAndPlayWidget> widget;
};

}  // namespace testing_support
