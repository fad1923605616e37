#include "ZuImage/Image.hpp"

#include <gtest/gtest.h>

#include <optional>

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

TEST(Image, ReducedImagesDecodeTheirFullSizeWhenAskedAndKeepNone) {
  int decodes = 0;
  const Image reduced = Image(1, 1, {9, 9, 9, 255}, 2, Image::Orientation::left)
                            .reducedFrom(2, 1, [&]() -> std::optional<Image> {
                              ++decodes;
                              return Image(2, 1, {1, 2, 3, 4, 5, 6, 7, 8});
                            });
  const Image copy = reduced;  // NOLINT(performance-unnecessary-copy-initialization): the copy is the point
  EXPECT_TRUE(copy.isReduced());
  EXPECT_EQ(copy.width(), 1);
  EXPECT_EQ(copy.fullWidth(), 2);
  EXPECT_EQ(copy.fullHeight(), 1);
  for (int ask = 1; ask <= 2; ++ask) {
    const auto full = copy.atFullSize();
    ASSERT_TRUE(full);
    EXPECT_EQ(decodes, ask);
    EXPECT_FALSE(full->isReduced());
    EXPECT_EQ(full->width(), 2);
    EXPECT_EQ(full->rgba()[4], 5);
    EXPECT_EQ(full->scale(), 2);
    EXPECT_EQ(full->imageOrientation(), Image::Orientation::left);
  }
  // Shown another way, it still stands for the same picture.
  EXPECT_EQ(reduced.withScale(1, Image::Orientation::up).atFullSize()->imageOrientation(),
            Image::Orientation::up);

  const Image whole(2, 1, {1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_FALSE(whole.isReduced());
  EXPECT_EQ(whole.fullWidth(), 2);
  EXPECT_EQ(whole.fullHeight(), 1);
  EXPECT_EQ(whole.atFullSize()->rgba().data(), whole.rgba().data());

  const Image gone = whole.reducedFrom(4, 2, [] { return std::optional<Image>(); });
  EXPECT_FALSE(gone.atFullSize());
}

TEST(ImageDeathTest, PixelsMustFitTheSize) {
  EXPECT_DEATH(Image(2, 2, {1, 2, 3, 4}), "An image of 2 x 2 pixels cannot hold 4 bytes");
}

}  // namespace
