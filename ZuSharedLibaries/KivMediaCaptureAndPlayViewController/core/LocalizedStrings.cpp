#include "KivMediaCaptureAndPlayViewController/core/LocalizedStrings.hpp"

#include <array>
#include <utility>

namespace zu {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 2> kEnglish{{
    {"CameraAccessDeniedErrorDescription",
     "This application is not allowed to use the camera. Allow it access to the camera, then try again."},
    {"NoBackWideAngleCameraErrorDescription", "No camera was found. Connect a camera, then try again."},
}};

}  // namespace

std::string localizedCaptureString(std::string_view key) {
  for (const auto& [tableKey, text] : kEnglish) {
    if (tableKey == key) return std::string(text);
  }
  return std::string(key);
}

}  // namespace zu
