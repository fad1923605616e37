#pragma once

#include <optional>

#include "ZuFoundation/Data.hpp"
#include "ZuImage/Image.hpp"

namespace kiv::detail {

/// Whether `bytes` begin as a JPEG file does (a start-of-image marker and another marker after it).
bool isJpeg(const zu::Data& bytes);

/**
 * The picture in JPEG `bytes` as RGBA, at scale 1, its orientation the one its EXIF data gives (`up` when it
 * gives none), as the platform's image decoding does; the pixels stay as stored. Nothing when the bytes are
 * not a whole JPEG picture: damaged, cut short, or bigger than `kMaxJpegPixels` at full size.
 *
 * With `longerSide`, the picture is decoded at the fewest eighths of its size (1/8 to 8/8) that still give
 * its longer side that many pixels; one decoded smaller than stored is reduced from its full size, which
 * `decodeFullSize` decodes when asked (`zu::Image::atFullSize`). Without, it is decoded at full size.
 */
std::optional<zu::Image> decodeJpeg(const zu::Data& bytes, std::optional<int> longerSide = std::nullopt,
                                    zu::Image::FullSizeDecoder decodeFullSize = {});

/// Pictures above this many pixels (a gibibyte of RGBA) are refused rather than allocated.
inline constexpr std::size_t kMaxJpegPixels = std::size_t{1} << 28;

}  // namespace kiv::detail
