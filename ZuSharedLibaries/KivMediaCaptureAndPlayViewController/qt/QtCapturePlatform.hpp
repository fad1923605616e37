#pragma once

#include <QColor>
#include <QImage>
#include <memory>
#include <optional>

#include "KivMediaCaptureAndPlayViewController/core/CapturePlatform.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuImage/Image.hpp"
#include "ZuLayout/Color.hpp"

namespace zu {

QColor toQColor(const Color& color);
/// The image as a `QImage` turned upright by its orientation; the pixels are shared, not copied, when it is
/// already upright.
QImage toQImage(const Image& image);
/// The picture in an image file's bytes (JPEG, PNG, ...), turned upright by its EXIF orientation; nothing
/// when the bytes hold no image Qt can read.
std::optional<Image> imageFromData(const Data& bytes);

/// Repeating timers on the Qt GUI thread (`QTimer`). Use it from that thread only.
class QtTimerSource final : public TimerSource {
 public:
  std::unique_ptr<Timer> scheduledRepeatingTimer(double interval, std::function<void()> block) override;
};

/**
 * Makes `zu::DispatchQueue::main()` hand its tasks to the Qt GUI thread's event loop. An application calls it
 * once, after making its `QApplication` and before its first capture screen; later calls change nothing.
 */
void installQtMainDispatcher();

/// A capture platform for a Qt application: `device` and `player`, Qt timers, Qt image decoding, the main
/// queue (on the GUI thread once the application has installed its dispatcher) and a session queue of the
/// screen's own.
CapturePlatform qtCapturePlatform(std::shared_ptr<CaptureDevice> device, std::shared_ptr<MediaPlayer> player);

}  // namespace zu
