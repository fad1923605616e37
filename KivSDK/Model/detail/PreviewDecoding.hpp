#pragma once

#include <optional>
#include <string>

#include "ZuFoundation/Data.hpp"
#include "ZuImage/Image.hpp"

// The decoders behind the preview images. An SDK built without previews (KIV_BUILD_PREVIEWS off) has
// decoders that find nothing.
//
// With `longerSide`, a picture whose longer side has more pixels than that is decoded smaller, at least
// that size (JPEG photos in eighths of their size, other pictures exactly), and is reduced from its full
// size, which `decodeFullSize` decodes when asked (`zu::Image::atFullSize`). Without, pictures decode at
// full size.
namespace kiv::detail {

/// The picture in a photo file's `bytes` (JPEG, PNG, GIF, WebP, TIFF, BMP...) at scale 1; nothing when they
/// hold none. Decodes before it returns.
std::optional<zu::Image> decodePhoto(const zu::Data& bytes, std::optional<int> longerSide = std::nullopt,
                                     zu::Image::FullSizeDecoder decodeFullSize = {});

/// The picture at time zero of the video at `path` (MP4, MOV, MKV, WebM...), upright as stored, at scale 1;
/// nothing when there is none. Blocks the calling thread until it is decoded or the file is found unfit.
/// Reduced, it decodes its full size from the file again.
std::optional<zu::Image> firstFrameOfVideo(const std::string& path,
                                           std::optional<int> longerSide = std::nullopt);

}  // namespace kiv::detail
