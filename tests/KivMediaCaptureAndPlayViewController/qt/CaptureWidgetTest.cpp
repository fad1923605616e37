#include "KivMediaCaptureAndPlayViewController/qt/KivMediaCaptureAndPlayWidget.hpp"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QLabel>
#include <QWheelEvent>
#include <algorithm>
#include <functional>
#include <set>

#include "KivMediaCaptureAndPlayViewController/CaptureTestSupport.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/FakeCaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/FakeMediaPlayer.hpp"
#include "KivMediaCaptureAndPlayViewController/fake/TestPattern.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/CaptureWidgetHarness.hpp"

namespace {

using namespace testing_support;

/// The Qt capture screen on the fake camera and player.
struct FakeParts {
  std::shared_ptr<zu::FakeCaptureDevice> device = std::make_shared<zu::FakeCaptureDevice>();
  std::shared_ptr<zu::FakeMediaPlayer> player = std::make_shared<zu::FakeMediaPlayer>();
};
class CaptureWidget : public FakeParts, public CaptureWidgetHarness {
 public:
  explicit CaptureWidget(const Options& options) : CaptureWidgetHarness(device, player, options) {}

  void show() {
    ASSERT_TRUE(showAndWaitForCamera([this] { device->deliverFrame(); }));
  }
};

/// A photo to review, in the screen's media folder.
CaptureWidget::Options photoReview(bool hostLetsDelete) {
  const zu::Data jpeg = zu::jpegData(zu::testPatternImage(960, 720, 40));
  return {.fileName = "evidence.jpg",
          .fileBytes = std::string(jpeg.begin(), jpeg.end()),
          .hostLetsDelete = hostLetsDelete};
}

struct Shot {
  const char* name;
  CaptureWidget::Options options;
  /// The user's steps from the first state.
  std::function<void(CaptureWidget&)> steps;
  State state;
  std::set<QString> visible;
  int panelHeight;
  int sideDistance;
};

void record(CaptureWidget& screen) {
  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::recording));
  screen.device->advanceRecording(75.4);
  ASSERT_TRUE(screen.waitUntil([&] { return screen.controller()._timeLabel.text == "00:01:15"; }));
}
void recordAndStop(CaptureWidget& screen) {
  record(screen);
  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::readyToPlayback));
}
void play(CaptureWidget& screen) {
  recordAndStop(screen);
  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::playing));
  screen.player->advance(1.4);
  ASSERT_TRUE(screen.waitUntil([&] { return screen.controller()._timeLabel.text == "00:00:01"; }));
}

class CaptureWidgetScreenshots : public testing::TestWithParam<Shot> {};

TEST_P(CaptureWidgetScreenshots, ShowWhatTheStateShows) {
  const Shot& shot = GetParam();
  CaptureWidget screen(shot.options);
  if (shot.state != State::disabled) screen.show();
  if (shot.steps) shot.steps(screen);
  ASSERT_TRUE(screen.waitForState(shot.state));
  QCoreApplication::processEvents();

  const QImage picture = screen.screenshot(shot.name);
  EXPECT_EQ(screen.visibleControls(), shot.visible);
  EXPECT_EQ(screen.child("bottomControlsView")->height(), shot.panelHeight);
  EXPECT_EQ(screen.widget->sideButtonsBottomDistance(), shot.sideDistance);
  for (const char* side : {"trashButton", "confirmButton"}) {
    const QWidget* button = screen.child(side);
    if (!button->isVisibleTo(screen.widget.get())) continue;
    EXPECT_EQ(button->parentWidget()->height() - button->geometry().bottom() - 1, shot.sideDistance) << side;
  }
  // Nothing that shows overlaps anything else that shows.
  const std::vector<QString> names(shot.visible.begin(), shot.visible.end());
  for (std::size_t a = 0; a < names.size(); ++a) {
    for (std::size_t b = a + 1; b < names.size(); ++b) {
      const QWidget* first = screen.child(names[a]);
      const QWidget* second = screen.child(names[b]);
      const QRect firstRect(first->mapTo(screen.widget.get(), QPoint()), first->size());
      const QRect secondRect(second->mapTo(screen.widget.get(), QPoint()), second->size());
      EXPECT_FALSE(firstRect.intersects(secondRect))
          << names[a].toStdString() << " " << names[b].toStdString();
    }
  }
  // The picture is the screen: the top-left corner shows the preview's content or black, and the dismiss
  // button's white cross crosses its centre.
  const QWidget* dismiss = screen.child("dismissButton");
  const QColor cross = picture.pixelColor(dismiss->geometry().center());
  EXPECT_GT(cross.lightness(), 200);
}

INSTANTIATE_TEST_SUITE_P(
    States, CaptureWidgetScreenshots,
    testing::Values(Shot{"disabled", {}, nullptr, State::disabled, {"dismissButton", "timeLabel"}, 0, 10},
                    Shot{"readyToCapture-video",
                         {},
                         nullptr,
                         State::readyToCapture,
                         {"dismissButton", "flashButton", "timeLabel", "mainControlButton",
                          "videoPhotoSegmentedControl"},
                         138,
                         30},
                    Shot{"readyToCapture-photo",
                         {},
                         [](CaptureWidget& screen) { screen.pickSegment(1); },
                         State::readyToCapture,
                         {"dismissButton", "flashButton", "mainControlButton", "videoPhotoSegmentedControl"},
                         138,
                         30},
                    Shot{"recording",
                         {},
                         record,
                         State::recording,
                         {"dismissButton", "flashButton", "timeLabel", "mainControlButton"},
                         100,
                         30},
                    Shot{"readyToPlayback",
                         {},
                         recordAndStop,
                         State::readyToPlayback,
                         {"dismissButton", "timeLabel", "trashButton", "mainControlButton", "confirmButton"},
                         100,
                         30},
                    Shot{"readyToPlayback-narrow",
                         {.size = {390, 844}},
                         recordAndStop,
                         State::readyToPlayback,
                         {"dismissButton", "timeLabel", "trashButton", "mainControlButton", "confirmButton"},
                         100,
                         30},
                    Shot{"playing",
                         {},
                         play,
                         State::playing,
                         {"dismissButton", "timeLabel", "mainControlButton"},
                         100,
                         30},
                    Shot{"paused",
                         {},
                         [](CaptureWidget& screen) {
                           play(screen);
                           screen.click("mainControlButton");
                         },
                         State::paused,
                         {"dismissButton", "timeLabel", "trashButton", "mainControlButton", "confirmButton"},
                         100,
                         30},
                    Shot{"ended",
                         {},
                         [](CaptureWidget& screen) {
                           play(screen);
                           screen.player->advance(10);
                         },
                         State::ended,
                         {"dismissButton", "timeLabel", "trashButton", "mainControlButton", "confirmButton"},
                         100,
                         30},
                    Shot{"imageDisplay",
                         {.defaultMediaType = MediaType::photo},
                         [](CaptureWidget& screen) { screen.click("mainControlButton"); },
                         State::imageDisplay,
                         {"dismissButton", "trashButton", "confirmButton"},
                         60,
                         10},
                    Shot{"imageDisplay-review",
                         photoReview(false),
                         nullptr,
                         State::imageDisplay,
                         {"dismissButton"},
                         0,
                         10}),
    [](const testing::TestParamInfo<Shot>& row) {
      std::string name = row.param.name;
      std::replace(name.begin(), name.end(), '-', '_');
      return name;
    });

TEST(CaptureWidget, TheHostHearsConfirmAndDismissPresses) {
  CaptureWidget screen({.defaultMediaType = MediaType::photo});
  screen.show();
  screen.click("flashButton");
  EXPECT_TRUE(screen.controller().flashOn());
  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::imageDisplay));
  screen.click("confirmButton");
  screen.click("dismissButton");
  ASSERT_EQ(screen.delegate.dismissals.size(), 2U);
  EXPECT_EQ(screen.delegate.dismissals[0].reason, Controller::DismissReason::save);
  EXPECT_EQ(screen.delegate.dismissals[0].fileURL, screen.controller().fileURL());
  EXPECT_EQ(screen.delegate.dismissals[1].reason, Controller::DismissReason::close);
}

TEST(CaptureWidget, AHostSaysOnScreenWhyTheCameraCannotBeUsed) {
  CaptureWidgetHarness screen(std::make_shared<zu::FakeCaptureDevice>(zu::FakeCaptureDevice::Settings{
                                  .setupError = zu::SetupError::noBackWideAngleCamera()}),
                              std::make_shared<zu::FakeMediaPlayer>(), {});
  screen.widget->show();
  ASSERT_TRUE(screen.waitUntil([&] { return !screen.delegate.failures.empty(); }));
  const std::string text = screen.delegate.failures[0].errorDescription();
  ASSERT_EQ(text, "No camera was found. Connect a camera, then try again.");
  screen.widget->showMessage(QString::fromStdString(text));
  QCoreApplication::processEvents();

  const QImage picture = screen.screenshot("setupError");
  const auto* message = screen.widget->findChild<QLabel*>("messageLabel");
  ASSERT_TRUE(message && message->isVisible());
  EXPECT_EQ(message->text().toStdString(), text);
  const QRect area = message->geometry();
  EXPECT_TRUE(screen.widget->rect().contains(area));
  EXPECT_EQ(area.center(), screen.widget->rect().center());
  EXPECT_FALSE(area.intersects(screen.child("dismissButton")->geometry()));
  // The picture shows light letters on the message's grey ground, which stands out from the black preview.
  int light = 0;
  for (int y = area.top(); y <= area.bottom(); ++y) {
    for (int x = area.left(); x <= area.right(); ++x)
      light += picture.pixelColor(x, y).lightness() > 200 ? 1 : 0;
  }
  EXPECT_GT(light, 100);
  const int ground = picture.pixelColor(area.left() + 4, area.center().y()).lightness();
  EXPECT_GT(ground, 20);
  EXPECT_LT(ground, 80);

  // The close button still closes; a host hides the message with an empty text.
  screen.click("dismissButton");
  ASSERT_EQ(screen.delegate.dismissals.size(), 1U);
  EXPECT_EQ(screen.delegate.dismissals[0].reason, Controller::DismissReason::close);
  screen.widget->showMessage({});
  EXPECT_FALSE(message->isVisible());
}

TEST(CaptureWidget, ControlWheelZoomsAndThePanelAnimatesToItsHeight) {
  CaptureWidget screen({});
  screen.widget->setAnimationDuration(150);
  screen.show();
  EXPECT_TRUE(screen.waitUntil([&] { return screen.widget->bottomPanelHeight() == 138; }));
  const auto wheel = [&](Qt::KeyboardModifiers modifiers) {
    const QPointF at(640, 360);
    QWheelEvent event(at, screen.widget->mapToGlobal(at), QPoint(), QPoint(0, 120), Qt::NoButton, modifiers,
                      Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(screen.widget.get(), &event);
    return screen.device->record().videoZoomFactor;
  };
  EXPECT_EQ(wheel(Qt::NoModifier), 1);
  EXPECT_EQ(wheel(Qt::ControlModifier), 1.25);
  EXPECT_EQ(wheel(Qt::ControlModifier), 1.5625);

  screen.click("mainControlButton");
  EXPECT_TRUE(screen.waitUntil([&] { return screen.widget->bottomPanelHeight() == 100; }));
}

}  // namespace
