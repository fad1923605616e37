#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"

#include <QBuffer>
#include <QCoreApplication>
#include <QImageReader>
#include <QTimer>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "ZuFoundation/DispatchQueue.hpp"

namespace zu {
namespace {

QImage upright(QImage image, Image::Orientation orientation) {
  QTransform turn;
  bool mirrored = false;
  switch (orientation) {
    case Image::Orientation::up:
      return image;
    case Image::Orientation::upMirrored:
      mirrored = true;
      break;
    case Image::Orientation::down:
      turn.rotate(180);
      break;
    case Image::Orientation::downMirrored:
      turn.rotate(180);
      mirrored = true;
      break;
    case Image::Orientation::left:
      turn.rotate(-90);
      break;
    case Image::Orientation::leftMirrored:
      turn.rotate(-90);
      mirrored = true;
      break;
    case Image::Orientation::right:
      turn.rotate(90);
      break;
    case Image::Orientation::rightMirrored:
      turn.rotate(90);
      mirrored = true;
      break;
  }
  if (mirrored) image = image.mirrored(true, false);
  return image.transformed(turn);
}

class QtTimer final : public Timer {
 public:
  QtTimer(double interval, std::function<void()> block) {
    timer_.setInterval(static_cast<int>(interval * 1000));
    QObject::connect(&timer_, &QTimer::timeout, std::move(block));
    timer_.start();
  }
  void invalidate() override { timer_.stop(); }

 private:
  QTimer timer_;
};

}  // namespace

QColor toQColor(const Color& color) {
  return QColor::fromRgbF(static_cast<float>(color.red), static_cast<float>(color.green),
                          static_cast<float>(color.blue), static_cast<float>(color.alpha));
}

QImage toQImage(const Image& image) {
  if (image.isEmpty()) return {};
  // The QImage keeps a reference to the shared pixels until it is done with them.
  auto* keep = new std::shared_ptr<const std::vector<std::uint8_t>>(image.sharedPixels());
  QImage wrapped(
      (*keep)->data(), image.width(), image.height(), static_cast<qsizetype>(image.width()) * 4,
      QImage::Format_RGBA8888,
      [](void* pixels) { delete static_cast<std::shared_ptr<const std::vector<std::uint8_t>>*>(pixels); },
      keep);
  wrapped.setDevicePixelRatio(image.scale());
  return upright(std::move(wrapped), image.imageOrientation());
}

std::optional<Image> imageFromData(const Data& bytes) {
  QByteArray array(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()));
  QBuffer buffer(&array);
  QImageReader reader(&buffer);
  reader.setAutoTransform(true);
  const QImage decoded = reader.read().convertToFormat(QImage::Format_RGBA8888);
  if (decoded.isNull()) return std::nullopt;
  const auto rowBytes = static_cast<std::size_t>(decoded.width()) * 4;
  std::vector<std::uint8_t> pixels(rowBytes * static_cast<std::size_t>(decoded.height()));
  for (int y = 0; y < decoded.height(); ++y) {
    std::memcpy(pixels.data() + rowBytes * static_cast<std::size_t>(y), decoded.constScanLine(y), rowBytes);
  }
  return Image(decoded.width(), decoded.height(), std::move(pixels));
}

std::unique_ptr<Timer> QtTimerSource::scheduledRepeatingTimer(double interval, std::function<void()> block) {
  return std::make_unique<QtTimer>(interval, std::move(block));
}

void installQtMainDispatcher() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    DispatchQueue::setMainDispatcher([](DispatchQueue::Task task) {
      // Once the application object has gone there is no GUI thread left to run the task.
      if (auto* application = QCoreApplication::instance()) {
        QMetaObject::invokeMethod(application, std::move(task), Qt::QueuedConnection);
      }
    });
  });
}

CapturePlatform qtCapturePlatform(std::shared_ptr<CaptureDevice> device,
                                  std::shared_ptr<MediaPlayer> player) {
  return {.captureDevice = std::move(device),
          .player = std::move(player),
          .timerSource = std::make_shared<QtTimerSource>(),
          .imageFromData = imageFromData,
          .mainQueue = {},
          .sessionQueue = {},
          .now = {}};
}

}  // namespace zu
