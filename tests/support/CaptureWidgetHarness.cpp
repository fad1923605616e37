#include "support/CaptureWidgetHarness.hpp"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QMouseEvent>
#include <QTimer>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"

namespace testing_support {

const std::set<QString> kAllControls = {"dismissButton",
                                        "flashButton",
                                        "timeLabel",
                                        "trashButton",
                                        "mainControlButton",
                                        "confirmButton",
                                        "videoPhotoSegmentedControl"};

CaptureWidgetHarness::CaptureWidgetHarness(std::shared_ptr<zu::CaptureDevice> device,
                                           std::shared_ptr<zu::MediaPlayer> player, const Options& options) {
  delegate.canDelete = options.hostLetsDelete;
  std::optional<zu::URL> file;
  if (options.fileName) {
    file = folderURL().appendingPathComponent(*options.fileName);
    if (options.fileBytes) writeFile(file->path(), *options.fileBytes);
  }
  auto screen = std::make_unique<Controller>(delegate, folderURL(), file, options.autoplay,
                                             zu::qtCapturePlatform(std::move(device), std::move(player)));
  screen->defaultMediaType = options.defaultMediaType;
  widget = std::make_unique<zu::KivMediaCaptureAndPlayWidget>(std::move(screen));
  widget->setAnimationDuration(0);
  widget->resize(options.size);
}

bool CaptureWidgetHarness::waitUntil(const std::function<bool()>& condition) {
  // Sleeps between events; the ticks wake the loop to look at the bound.
  QTimer tick;
  tick.start(20);
  QElapsedTimer waited;
  waited.start();
  while (!condition() && waited.elapsed() < 120000)
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  return condition();
}

bool CaptureWidgetHarness::waitForState(State state) {
  return waitUntil([&] { return controller().state() == state; });
}

bool CaptureWidgetHarness::showAndWaitForCamera(const std::function<void()>& sendPicture) {
  widget->show();
  if (controller().fileURL()) return true;
  if (!waitUntil([&] { return controller()._mainControlButton.isEnabled; })) return false;
  if (sendPicture) sendPicture();
  return waitUntil([&] { return !controller()._mediaPreviewView.previewLayer->frame.isEmpty(); });
}

void CaptureWidgetHarness::click(const QString& name) { static_cast<QAbstractButton*>(child(name))->click(); }

void CaptureWidgetHarness::pickSegment(int index) {
  QWidget* segments = child("videoPhotoSegmentedControl");
  const QPointF at(segments->width() * (index + 0.5) / 2, segments->height() / 2.0);
  QMouseEvent press(QEvent::MouseButtonPress, at, segments->mapToGlobal(at), Qt::LeftButton, Qt::LeftButton,
                    Qt::NoModifier);
  QCoreApplication::sendEvent(segments, &press);
}

void CaptureWidgetHarness::pinch(zu::PinchGestureRecognizer::State state, double scale) {
  controller()._zoomPinchGesture({state, scale});
}

std::set<QString> CaptureWidgetHarness::visibleControls() const {
  std::set<QString> visible;
  for (const QString& name : kAllControls) {
    if (child(name)->isVisibleTo(widget.get())) visible.insert(name);
  }
  return visible;
}

QImage CaptureWidgetHarness::screenshot(const QString& name) const {
  QImage picture = widget->grab().toImage();
  QDir().mkpath(KIV_SCREENSHOT_DIR);
  return picture.save(QStringLiteral(KIV_SCREENSHOT_DIR "/%1.png").arg(name)) ? picture : QImage();
}

}  // namespace testing_support
