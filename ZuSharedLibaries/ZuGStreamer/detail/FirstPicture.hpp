#pragma once

#include <gst/gst.h>

#include <optional>
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
 * after a time-out. Only pictures are decoded: sound stays as it is stored.
 *
 * With `longerSide`, a picture with more pixels than that on its longer side is scaled down to that many, as
 * it is converted, and is reduced from its full size, which it decodes from the file again when asked.
 */
Result<Image> firstPictureOfFile(const std::string& path, std::optional<int> longerSide = std::nullopt);

/// The picture in an image file's `bytes` (PNG, GIF, WebP, JPEG...), decoded like `firstPictureOfFile`; a
/// reduced one decodes its full size with `decodeFullSize`. The bytes are read in place, not copied.
Result<Image> firstPictureOfData(const Data& bytes, std::optional<int> longerSide = std::nullopt,
                                 Image::FullSizeDecoder decodeFullSize = {});

}  // namespace zu::detail
