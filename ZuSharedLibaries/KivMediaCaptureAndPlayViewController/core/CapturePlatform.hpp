#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "KivMediaCaptureAndPlayViewController/core/CaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/core/MediaPlayer.hpp"
#include "KivMediaCaptureAndPlayViewController/core/TimerSource.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Date.hpp"
#include "ZuImage/Image.hpp"

namespace zu {

/**
 * What the capture screen runs on: the camera, the player, timers, an image decoder, the two queues and the
 * clock. The toolkit layer fills it (the Qt view with `zu::qtCapturePlatform`); tests fill it with fakes so
 * that everything runs on one thread.
 */
struct CapturePlatform {
  /// Runs a task later, in order with the other tasks of the same executor.
  using Executor = std::function<void(std::function<void()> task)>;
  /// The picture in a photo file's bytes; nothing when they hold no image.
  using ImageDecoder = std::function<std::optional<Image>(const Data& bytes)>;

  std::shared_ptr<CaptureDevice> captureDevice;
  std::shared_ptr<MediaPlayer> player;
  std::shared_ptr<TimerSource> timerSource;
  ImageDecoder imageFromData;
  /// The main queue; when empty, `zu::DispatchQueue::main()`.
  Executor mainQueue;
  /// The serial queue of session set-up, start and stop; when empty, a queue of the screen's own.
  Executor sessionQueue;
  /// The current time, for the names of new files; when empty, `zu::Date::now`.
  std::function<Date()> now;
};

}  // namespace zu
