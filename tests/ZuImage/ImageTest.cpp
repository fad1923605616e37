#include "ZuImage/Image.hpp"

#include <gtest/gtest.h>

namespace {

using zu::Image;

TEST(Image, CopiesSharePixels) {
  const Image image(2, 1, {1, 2, 3, 4, 5, 6, 7, 8}, 2, Image::Orientation::leftMirrored);
  const Image copy = image;  // NOLINT(performance-unnecessary-copy-initialization): the copy is the point
  EXPECT_EQ(copy.rgba().data(), image.rgba().data());
  EXPECT_EQ(copy.rgba()[7], 8);
  EXPECT_EQ(copy.width(), 2);
  EXPECT_EQ(copy.height(), 1);
  EXPECT_EQ(copy.scale(), 2);
  EXPECT_EQ(zu::rawValue(copy.imageOrientation()), 6);
  const Image shown = image.withScale(3, Image::Orientation::right);
  EXPECT_EQ(shown.rgba().data(), image.rgba().data());
  EXPECT_EQ(shown.scale(), 3);
  EXPECT_EQ(zu::rawValue(shown.imageOrientation()), 3);
  EXPECT_EQ(image.scale(), 2);
  EXPECT_FALSE(copy.isEmpty());
  EXPECT_TRUE(Image().isEmpty());
  EXPECT_TRUE(Image().rgba().empty());
  EXPECT_EQ(zu::fromRawValue<Image::Orientation>(7), Image::Orientation::rightMirrored);
  EXPECT_FALSE(zu::fromRawValue<Image::Orientation>(8));
}

TEST(ImageDeathTest, PixelsMustFitTheSize) {
  EXPECT_DEATH(Image(2, 2, {1, 2, 3, 4}), "An image of 2 x 2 pixels cannot hold 4 bytes");
}

}  // namespace
