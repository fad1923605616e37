// The SDK without preview images (KIV_BUILD_PREVIEWS off): nothing decodes.
#include "KivSDK/Model/detail/PreviewDecoding.hpp"

namespace kiv::detail {

// The decoder is taken by value, as the real decoding keeps it in the picture it returns.
std::optional<zu::Image> decodePhoto(const zu::Data& /*bytes*/, std::optional<int> /*longerSide*/,
                                     // NOLINTNEXTLINE(performance-unnecessary-value-param)
                                     zu::Image::FullSizeDecoder /*decodeFullSize*/) {
  return std::nullopt;
}

std::optional<zu::Image> firstFrameOfVideo(const std::string& /*path*/, std::optional<int> /*longerSide*/) {
  return std::nullopt;
}

}  // namespace kiv::detail
