#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/V4l2Camera.hpp"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <map>

namespace zu::detail {
namespace {

int ioctlRetrying(int descriptor, unsigned long request, void* argument) {
  int result = 0;
  do {
    result = ::ioctl(descriptor, request, argument);
  } while (result < 0 && errno == EINTR);
  return result;
}

/// The video nodes of `directory` by their number.
std::map<int, std::string> videoNodes(const std::string& directory) {
  std::map<int, std::string> nodes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename().string();
    constexpr std::string_view prefix = "video";
    if (!name.starts_with(prefix) || name.size() == prefix.size()) continue;
    int number = 0;
    const char* digits = name.data() + prefix.size();
    const auto [end, failure] = std::from_chars(digits, name.data() + name.size(), number);
    if (failure == std::errc() && end == name.data() + name.size())
      nodes.emplace(number, entry.path().string());
  }
  return nodes;
}

bool isVideoCapture(int descriptor) {
  v4l2_capability capability{};
  if (ioctlRetrying(descriptor, VIDIOC_QUERYCAP, &capability) < 0) return false;
  const std::uint32_t caps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0U ? capability.device_caps
                                                                                    : capability.capabilities;
  return (caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0U;
}

}  // namespace

CameraSearch findCamera(const std::string& directory) {
  for (const auto& [number, path] : videoNodes(directory)) {
    const FileDescriptor node = FileDescriptor::open(path, O_RDWR | O_NONBLOCK);
    if (!node && (errno == EACCES || errno == EPERM)) return {CameraSearch::Outcome::denied, path};
    if (node && isVideoCapture(node.get())) return {CameraSearch::Outcome::found, path};
  }
  return {};
}

double maxZoomFactor(ControlRange zoom, double fallbackMaximum) {
  if (zoom.maximum <= zoom.minimum) return 1;
  if (zoom.minimum > 0) return static_cast<double>(zoom.maximum) / zoom.minimum;
  return fallbackMaximum;
}

std::int32_t zoomControlValue(ControlRange zoom, double factor, double fallbackMaximum) {
  const double maximum = maxZoomFactor(zoom, fallbackMaximum);
  const double clamped = std::clamp(factor, 1.0, maximum);
  const double value = zoom.minimum > 0
                           ? zoom.minimum * clamped
                           : zoom.minimum + (clamped - 1) / (maximum - 1) * (zoom.maximum - zoom.minimum);
  return static_cast<std::int32_t>(
      std::clamp(std::lround(value), static_cast<long>(zoom.minimum), static_cast<long>(zoom.maximum)));
}

V4l2Controls::V4l2Controls(const std::string& path)
    : descriptor_(FileDescriptor::open(path, O_RDWR | O_NONBLOCK)) {
  if (!descriptor_) return;
  zoom_ = queryRange(V4L2_CID_ZOOM_ABSOLUTE);
  hasTorch_ =
      queryRange(V4L2_CID_FLASH_LED_MODE) && hasMenuItem(V4L2_CID_FLASH_LED_MODE, V4L2_FLASH_LED_MODE_TORCH);
  torchIntensity_ = queryRange(V4L2_CID_FLASH_TORCH_INTENSITY);
}

std::optional<ControlRange> V4l2Controls::queryRange(std::uint32_t control) const {
  v4l2_queryctrl query{};
  query.id = control;
  if (ioctlRetrying(descriptor_.get(), VIDIOC_QUERYCTRL, &query) < 0) return std::nullopt;
  if ((query.flags & V4L2_CTRL_FLAG_DISABLED) != 0U) return std::nullopt;
  return ControlRange{query.minimum, query.maximum};
}

bool V4l2Controls::hasMenuItem(std::uint32_t control, std::uint32_t item) const {
  v4l2_querymenu menu{};
  menu.id = control;
  menu.index = item;
  return ioctlRetrying(descriptor_.get(), VIDIOC_QUERYMENU, &menu) == 0;
}

Result<void> V4l2Controls::setControl(std::uint32_t control, std::int32_t value) {
  v4l2_control setting{};
  setting.id = control;
  setting.value = value;
  if (ioctlRetrying(descriptor_.get(), VIDIOC_S_CTRL, &setting) < 0) return Error::posix(errno);
  return {};
}

Result<void> V4l2Controls::setZoom(std::int32_t value) { return setControl(V4L2_CID_ZOOM_ABSOLUTE, value); }

Result<void> V4l2Controls::setTorch(std::optional<float> level) {
  if (!hasTorch_) return Error::posix(ENOTSUP);
  if (!level) return setControl(V4L2_CID_FLASH_LED_MODE, V4L2_FLASH_LED_MODE_NONE);
  if (torchIntensity_) {
    const double span = torchIntensity_->maximum - torchIntensity_->minimum;
    const auto intensity = static_cast<std::int32_t>(
        torchIntensity_->minimum + std::lround(std::clamp(static_cast<double>(*level), 0.0, 1.0) * span));
    if (auto set = setControl(V4L2_CID_FLASH_TORCH_INTENSITY, intensity); !set) return set;
  }
  return setControl(V4L2_CID_FLASH_LED_MODE, V4L2_FLASH_LED_MODE_TORCH);
}

}  // namespace zu::detail
