#include "KivSDK/Model/detail/PreviewDecoding.hpp"

#include <utility>

#include "KivSDK/Model/detail/JpegDecoder.hpp"
#include "ZuGStreamer/detail/FirstPicture.hpp"

namespace kiv::detail {
namespace {

std::optional<zu::Image> picture(zu::Result<zu::Image> decoded) {
  if (!decoded) return std::nullopt;
  return std::move(*decoded);
}

}  // namespace

std::optional<zu::Image> decodePhoto(const zu::Data& bytes, std::optional<int> longerSide,
                                     zu::Image::FullSizeDecoder decodeFullSize) {
  if (isJpeg(bytes)) return decodeJpeg(bytes, longerSide, std::move(decodeFullSize));
  return picture(zu::detail::firstPictureOfData(bytes, longerSide, std::move(decodeFullSize)));
}

std::optional<zu::Image> firstFrameOfVideo(const std::string& path, std::optional<int> longerSide) {
  return picture(zu::detail::firstPictureOfFile(path, longerSide));
}

}  // namespace kiv::detail
