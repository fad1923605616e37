// The SDK without preview images (KIV_BUILD_PREVIEWS off): nothing decodes.
#include "KivSDK/Model/detail/PreviewDecoding.hpp"

namespace kiv::detail {

std::optional<zu::Image> decodePhoto(const zu::Data& /*bytes*/, std::optional<int> /*longerSide*/,
                                     zu::Image::FullSizeDecoder /*decodeFullSize*/) {
  return std::nullopt;
}

std::optional<zu::Image> firstFrameOfVideo(const std::string& /*path*/, std::optional<int> /*longerSide*/) {
  return std::nullopt;
}

}  // namespace kiv::detail
