#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "ZuFoundation/RawValue.hpp"

namespace zu {

/**
 * A decoded picture: a preview frame, a video frame or a photo, the counterpart of the platform's `UIImage`.
 * Pixels are 8-bit RGBA, row after row with no padding, shared between copies (copying an image never copies
 * its pixels). `scale` is the number of pixels per point; `imageOrientation` says how the pixels must be
 * turned to show upright, with the platform's raw values.
 *
 * A picture may be decoded smaller than it is, to the size a screen shows it at (the previews are): such an
 * image is *reduced*, knows its full size and decodes its full-size pixels again when asked (`atFullSize`),
 * so that holding it costs only the smaller pixels.
 *
 * Decoding and drawing live with the toolkit that uses the image (the Qt view converts to `QImage`).
 *
 * @par Thread Safety
 * An image never changes after it is made: copies may be used from any threads at once.
 */
class Image {
 public:
  enum class Orientation {
    up = 0,
    down = 1,
    left = 2,
    right = 3,
    upMirrored = 4,
    downMirrored = 5,
    leftMirrored = 6,
    rightMirrored = 7,
  };

  /// The empty image: no pixels.
  Image() = default;
  /**
   * An image of `width` x `height` pixels from `rgba`, which must hold exactly `width * height * 4` bytes
   * (anything else is a programming error and stops the program).
   */
  Image(int width, int height, std::vector<std::uint8_t> rgba, double scale = 1,
        Orientation imageOrientation = Orientation::up);

  /// The same pixels, shared, shown at `scale` pixels per point and turned by `imageOrientation`.
  Image withScale(double scale, Orientation imageOrientation) const;

  /// Decodes a reduced image's picture at its full size; nothing when it no longer can (its file has gone).
  using FullSizeDecoder = std::function<std::optional<Image>()>;
  /**
   * This image as the reduced copy of a picture of `fullWidth` x `fullHeight` pixels, which `decodeFullSize`
   * decodes when `atFullSize` is asked. The decoder is shared by the copies and may be called from any
   * thread.
   */
  Image reducedFrom(int fullWidth, int fullHeight, FullSizeDecoder decodeFullSize) const;
  /// Whether the pixels are a reduced copy of a bigger picture.
  bool isReduced() const { return fullSize_ != nullptr; }
  /// The size of the whole picture: `width()` and `height()` unless the image is reduced.
  int fullWidth() const;
  int fullHeight() const;
  /**
   * The picture at its full size, at this image's scale and orientation: the image itself unless it is
   * reduced, else decoded again on the calling thread, which waits. The result is not kept: keep it as long
   * as it is shown. Nothing when the picture no longer decodes.
   */
  std::optional<Image> atFullSize() const;

  int width() const { return width_; }
  int height() const { return height_; }
  double scale() const { return scale_; }
  Orientation imageOrientation() const { return orientation_; }
  bool isEmpty() const { return width_ == 0 || height_ == 0; }
  /// The pixels, `width() * height() * 4` bytes.
  std::span<const std::uint8_t> rgba() const;
  /// The pixel buffer itself, for toolkits that wrap it without copying.
  const std::shared_ptr<const std::vector<std::uint8_t>>& sharedPixels() const { return pixels_; }

 private:
  struct FullSize {
    int width = 0;
    int height = 0;
    FullSizeDecoder decode;
  };

  int width_ = 0;
  int height_ = 0;
  std::shared_ptr<const std::vector<std::uint8_t>> pixels_;
  std::shared_ptr<const FullSize> fullSize_;
  double scale_ = 1;
  Orientation orientation_ = Orientation::up;
};

template <>
struct RawValueRange<Image::Orientation> {
  static constexpr int first = 0;
  static constexpr int last = 7;
};

}  // namespace zu
