#pragma once

#include <memory>

#include "KivMediaCaptureAndPlayViewController/gstreamer/GstCaptureDevice.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/GstMediaPlayer.hpp"
#include "support/CaptureWidgetHarness.hpp"

namespace testing_support {

/// The camera and player, made before the screen that uses them.
struct GstParts {
  explicit GstParts(const zu::GstCaptureDevice::Settings& camera)
      : device(std::make_shared<zu::GstCaptureDevice>(camera)) {}

  std::shared_ptr<zu::GstCaptureDevice> device;
  std::shared_ptr<zu::GstMediaPlayer> player = std::make_shared<zu::GstMediaPlayer>();
};

/// The Qt capture screen on the GStreamer camera and player.
class GstCaptureWidget : public GstParts, public CaptureWidgetHarness {
 public:
  GstCaptureWidget(const zu::GstCaptureDevice::Settings& camera, const Options& options)
      : GstParts(camera), CaptureWidgetHarness(device, player, options) {}

  /// The player's picture on screen; empty before the first.
  const zu::Image& playerFrame() {
    static const zu::Image none;
    return controller()._playerLayer ? controller()._playerLayer->frame : none;
  }
};

}  // namespace testing_support
