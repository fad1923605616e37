#pragma once

#include <string_view>

namespace zu {

/// What the platform's uniform type identifiers say a file is, by the kind the SDK cares about.
enum class UniformType { unknown, image, movie };

/**
 * The kind of content a file name extension names, letter case ignored: an image (jpg, jpeg, png, heic, heif,
 * gif, tif, tiff, bmp, webp, dng, raw, cr2, nef, arw), else a movie (mov, mp4, m4v, avi, mkv, 3gp, mts, m2ts,
 * webm, hevc), else unknown.
 */
UniformType uniformTypeForFilenameExtension(std::string_view extension);

}  // namespace zu
