#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace zu::detail {

/// What looking for a camera found.
struct CameraSearch {
  enum class Outcome { found, denied, none };
  Outcome outcome = Outcome::none;
  /// The capture device's node when found; the node that could not be opened when denied.
  std::string path;
};

/**
 * The first V4L2 video capture device among the nodes "video0", "video1", ... of `directory`, in number
 * order (nodes of other kinds, such as a camera's metadata node, are passed over). A node that cannot be
 * opened for lack of permission ends the search as denied: it may be the camera, and this user is not
 * allowed to use it.
 */
CameraSearch findCamera(const std::string& directory);

/// The range of a V4L2 integer control.
struct ControlRange {
  std::int32_t minimum = 0;
  std::int32_t maximum = 0;
};

/**
 * The largest zoom factor a V4L2 zoom control reaches. When its minimum is above zero its values are focal
 * lengths (the UVC convention), so the factor is the ratio of maximum to minimum; otherwise the range is
 * spread evenly over 1 to `fallbackMaximum`.
 */
double maxZoomFactor(ControlRange zoom, double fallbackMaximum);
/// The control value for `factor` (1 to `maxZoomFactor`), by the same rule.
std::int32_t zoomControlValue(ControlRange zoom, double factor, double fallbackMaximum);

/**
 * The zoom and torch controls of a V4L2 camera, set through a descriptor of their own (V4L2 lets controls
 * change while another descriptor streams). The torch is the flash LED's torch mode, with its intensity
 * when the device has one.
 *
 * @par Thread Safety
 * Use from one thread at a time.
 */
class V4l2Controls {
 public:
  /// The controls of the device at `path`; none when it cannot be opened.
  explicit V4l2Controls(const std::string& path);

  const std::optional<ControlRange>& zoom() const { return zoom_; }
  bool hasTorch() const { return hasTorch_; }
  Result<void> setZoom(std::int32_t value);
  /// Turns the torch on at `level` (0 to 1), or off without a level.
  Result<void> setTorch(std::optional<float> level);

 private:
  std::optional<ControlRange> queryRange(std::uint32_t control) const;
  bool hasMenuItem(std::uint32_t control, std::uint32_t item) const;
  Result<void> setControl(std::uint32_t control, std::int32_t value);

  FileDescriptor descriptor_;
  std::optional<ControlRange> zoom_;
  bool hasTorch_ = false;
  std::optional<ControlRange> torchIntensity_;
};

}  // namespace zu::detail
