#include "KivSDK/Previews/detail/PreviewDecoding.hpp"

#include "KivSDK/Previews/detail/JpegDecoder.hpp"
#include "ZuGStreamer/FirstPicture.hpp"

namespace kiv::detail {
namespace {

std::optional<zu::Image> picture(zu::Result<zu::Image> decoded) {
  if (!decoded) return std::nullopt;
  return std::move(*decoded);
}

}  // namespace

std::optional<zu::Image> decodePhoto(const zu::Data& bytes) {
  if (isJpeg(bytes)) return decodeJpeg(bytes);
  return picture(zu::detail::firstPictureOfData(bytes));
}

std::optional<zu::Image> firstFrameOfVideo(const std::string& path) {
  return picture(zu::detail::firstPictureOfFile(path));
}

}  // namespace kiv::detail
