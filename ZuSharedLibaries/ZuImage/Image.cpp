#include "ZuImage/Image.hpp"

#include <string>
#include <utility>

#include "ZuFoundation/FatalError.hpp"

namespace zu {

Image::Image(int width, int height, std::vector<std::uint8_t> rgba, double scale,
             Orientation imageOrientation)
    : width_(width), height_(height), scale_(scale), orientation_(imageOrientation) {
  const bool sizeMatches =
      width >= 0 && height >= 0 &&
      rgba.size() == static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  if (!sizeMatches) {
    fatalError("An image of " + std::to_string(width) + " x " + std::to_string(height) +
               " pixels cannot hold " + std::to_string(rgba.size()) + " bytes");
  }
  pixels_ = std::make_shared<const std::vector<std::uint8_t>>(std::move(rgba));
}

Image Image::withScale(double scale, Orientation imageOrientation) const {
  Image shown = *this;
  shown.scale_ = scale;
  shown.orientation_ = imageOrientation;
  return shown;
}

Image Image::reducedFrom(int fullWidth, int fullHeight, FullSizeDecoder decodeFullSize) const {
  Image reduced = *this;
  reduced.fullSize_ = std::make_shared<const FullSize>(
      FullSize{.width = fullWidth, .height = fullHeight, .decode = std::move(decodeFullSize)});
  return reduced;
}

int Image::fullWidth() const { return fullSize_ ? fullSize_->width : width_; }

int Image::fullHeight() const { return fullSize_ ? fullSize_->height : height_; }

std::optional<Image> Image::atFullSize() const {
  if (!fullSize_) return *this;
  auto decoded = fullSize_->decode();
  if (!decoded) return std::nullopt;
  return decoded->withScale(scale_, orientation_);
}

std::span<const std::uint8_t> Image::rgba() const {
  if (!pixels_) return {};
  return *pixels_;
}

}  // namespace zu
