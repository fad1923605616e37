#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <atomic>
#include <thread>

#include "KivMediaCaptureAndPlayViewController/fake/TestPattern.hpp"
#include "ZuFoundation/DispatchQueue.hpp"

namespace {

using zu::Image;

TEST(QtCapturePlatform, ImagesConvertBothWaysAndTurnUpright) {
  const Image wide(2, 1, {255, 0, 0, 255, 0, 0, 255, 255});
  const QImage shared = zu::toQImage(wide);
  EXPECT_EQ(shared.size(), QSize(2, 1));
  EXPECT_EQ(shared.constBits(), wide.rgba().data()) << "an upright image is not copied";
  EXPECT_EQ(shared.pixelColor(0, 0), QColor(255, 0, 0));

  const QImage turned =
      zu::toQImage(Image(2, 1, {255, 0, 0, 255, 0, 0, 255, 255}, 1, Image::Orientation::right));
  EXPECT_EQ(turned.size(), QSize(1, 2));
  EXPECT_EQ(turned.pixelColor(0, 0), QColor(255, 0, 0)) << "right: turned a quarter clockwise";
  const QImage mirrored =
      zu::toQImage(Image(2, 1, {255, 0, 0, 255, 0, 0, 255, 255}, 1, Image::Orientation::upMirrored));
  EXPECT_EQ(mirrored.pixelColor(0, 0), QColor(0, 0, 255));

  const zu::Data jpeg = zu::jpegData(zu::testPatternImage(64, 36, 0));
  const auto decoded = zu::imageFromData(jpeg);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->width(), 64);
  EXPECT_EQ(decoded->height(), 36);
  EXPECT_FALSE(zu::imageFromData(zu::Data{'n', 'o', 't'}));
  EXPECT_FALSE(zu::imageFromData({}));
  EXPECT_EQ(zu::toQColor(zu::Color::withRGBA(0xFF000080)), QColor::fromRgbF(1, 0, 0, 128 / 255.0F));
}

TEST(QtCapturePlatform, MainQueueTasksRunOnTheGuiThread) {
  std::atomic<bool> ran = false;
  std::atomic<bool> onGuiThread = false;
  std::thread poster([&] {
    zu::DispatchQueue::main().async([&] {
      onGuiThread = QThread::currentThread() == QCoreApplication::instance()->thread();
      ran = true;
    });
  });
  poster.join();
  QElapsedTimer waited;
  waited.start();
  while (!ran && waited.elapsed() < 30000) QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
  EXPECT_TRUE(ran);
  EXPECT_TRUE(onGuiThread);
}

TEST(QtCapturePlatform, TimersRepeatUntilInvalidated) {
  zu::QtTimerSource timers;
  int fired = 0;
  auto timer = timers.scheduledRepeatingTimer(0.01, [&] { ++fired; });
  QElapsedTimer waited;
  waited.start();
  while (fired < 3 && waited.elapsed() < 30000) QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
  EXPECT_GE(fired, 3);
  timer->invalidate();
  const int afterInvalidate = fired;
  QCoreApplication::processEvents();
  EXPECT_EQ(fired, afterInvalidate);
}

}  // namespace
