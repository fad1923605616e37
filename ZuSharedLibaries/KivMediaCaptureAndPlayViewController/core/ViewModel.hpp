#pragma once

#include <optional>
#include <string>
#include <vector>

#include "KivMediaCaptureAndPlayViewController/core/BottomControlsVisibility.hpp"
#include "ZuImage/Image.hpp"
#include "ZuLayout/Color.hpp"
#include "ZuLayout/View.hpp"

// The capture screen's views as plain values: the screen changes them, a toolkit view mirrors them.
namespace zu {

struct Button : View {
  /// Tells the buttons apart in the screen's action.
  int tag = 0;
  /// The image asset shown; empty for the toolkit's own image of the button's role.
  std::string imageName;
  bool isEnabled = true;
};

struct SegmentedControl : View {
  static constexpr int noSegment = -1;
  std::vector<std::string> segmentTitles;
  int selectedSegmentIndex = noSegment;
};

struct Label : View {
  std::string text;
  Color textColor = Color::withRGBA(0xFFFFFFFF);
};

/// Shows a picture scaled to fit, centred.
struct ImageView : View {
  Image image;
};

/// A layer showing video frames (the camera preview or the player), scaled to fill its view, over its
/// background colour.
struct VideoLayer {
  /// The latest frame; empty before the first one.
  Image frame;
  Color backgroundColor = Color::withRGBA(0x00000000);
};

/// The area behind the controls that shows the camera, the video or the photo.
struct MediaPreviewView : View {
  /// The camera's preview, once attached.
  std::optional<VideoLayer> previewLayer;
};

/// The panel of the bottom controls; its height and the side buttons' distance to its bottom are the
/// constants of the two constraints the screen holds.
struct BottomControlsView : View {
  /// How the height changed last, so that a view can order its animation.
  BottomControlsVisibility::Transition heightTransition = BottomControlsVisibility::Transition::none;
};

/// A pinch on the preview: its phase and the scale since it began.
struct PinchGestureRecognizer {
  enum class State { possible, began, changed, ended, cancelled, failed };
  State state = State::possible;
  double scale = 1;
};

/**
 * The toolkit view of a capture screen. The screen calls it on the main thread after it changes its view
 * model; the view reads the model back and shows it.
 */
class CaptureScreenView {
 public:
  virtual ~CaptureScreenView() = default;
  /// Buttons, segmented control, time label or bottom panel changed; `animated` asks for a transition.
  virtual void controlsDidChange(bool animated) = 0;
  /// The preview's layers, a frame or the photo changed.
  virtual void mediaPreviewDidChange() = 0;
};

}  // namespace zu
