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
 * not a whole JPEG picture: damaged, cut short, or bigger than `kMaxJpegPixels`.
 */
std::optional<zu::Image> decodeJpeg(const zu::Data& bytes);

/// Pictures above this many pixels (a gibibyte of RGBA) are refused rather than allocated.
inline constexpr std::size_t kMaxJpegPixels = std::size_t{1} << 28;

}  // namespace kiv::detail
