#pragma once

#include "ZuFoundation/Data.hpp"
#include "ZuImage/Image.hpp"

namespace zu {

/**
 * A test picture of `width` x `height` pixels: colour bars with a framed white block and a line that move
 * with `frameNumber`, so that a running preview visibly moves. `dark` draws it at half brightness (the fake
 * player's frames, told apart from the camera's).
 */
Image testPatternImage(int width, int height, long frameNumber, bool dark = false);

/// The image as the bytes of a baseline JPEG file (quality 85); nothing for the empty image.
Data jpegData(const Image& image);

}  // namespace zu
