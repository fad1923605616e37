#pragma once

#include <gst/gst.h>

#include <string>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuImage/Image.hpp"

namespace zu::detail {

/**
 * The first picture of the media file at `path` (a video's picture at time zero, a still image's only
 * one), as RGBA pixels, or why there is none: not media, damaged, no picture stream.
 *
 * Blocks the calling thread until the picture is decoded, the pipeline fails or the stream ends, whichever
 * comes first; the pipeline's bus says which, so a broken file fails as soon as it is found broken, never
 * after a time-out.
 */
Result<Image> firstPictureOfFile(const std::string& path);

/// The picture in an image file's `bytes` (PNG, GIF, WebP, JPEG...), decoded like `firstPictureOfFile`.
/// The bytes are read in place, not copied.
Result<Image> firstPictureOfData(const Data& bytes);

}  // namespace zu::detail
