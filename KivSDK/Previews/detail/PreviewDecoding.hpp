#pragma once

#include <optional>
#include <string>

#include "ZuFoundation/Data.hpp"
#include "ZuImage/Image.hpp"

// The decoders behind the preview images. An SDK built without previews (KIV_BUILD_PREVIEWS off) has
// decoders that find nothing.
namespace kiv::detail {

/// The picture in a photo file's bytes (JPEG, PNG, GIF, WebP, TIFF, BMP...) at scale 1; nothing when they
/// hold none. Decodes before it returns.
std::optional<zu::Image> decodePhoto(const zu::Data& bytes);

/// The picture at time zero of the video at `path` (MP4, MOV, MKV, WebM...), upright as stored, at scale 1;
/// nothing when there is none. Blocks the calling thread until it is decoded or the file is found unfit.
std::optional<zu::Image> firstFrameOfVideo(const std::string& path);

}  // namespace kiv::detail
