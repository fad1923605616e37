// The SDK without preview images (KIV_BUILD_PREVIEWS off): nothing decodes.
#include "KivSDK/Previews/detail/PreviewDecoding.hpp"

namespace kiv::detail {

std::optional<zu::Image> decodePhoto(const zu::Data& /*bytes*/) { return std::nullopt; }

std::optional<zu::Image> firstFrameOfVideo(const std::string& /*path*/) { return std::nullopt; }

}  // namespace kiv::detail
