#include "KivMediaCaptureAndPlayViewController/fake/TestPattern.hpp"

// clang-format off
#include <cstdio>  // jpeglib.h needs FILE declared first
#include <jpeglib.h>
// clang-format on

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace zu {
namespace {

using Rgb = std::array<std::uint8_t, 3>;

// The classic 75 % bars: white, yellow, cyan, green, magenta, red, blue.
constexpr std::array<Rgb, 7> kBars{
    {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0}, {191, 0, 191}, {191, 0, 0}, {0, 0, 191}}};

void fill(std::vector<std::uint8_t>& pixels, int width, int x0, int y0, int x1, int y1, Rgb colour) {
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) {
      const auto at =
          (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * 4;
      pixels[at] = colour[0];
      pixels[at + 1] = colour[1];
      pixels[at + 2] = colour[2];
      pixels[at + 3] = 255;
    }
  }
}

}  // namespace

Image testPatternImage(int width, int height, long frameNumber, bool dark) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
  for (int bar = 0; bar < 7; ++bar) {
    Rgb colour = kBars[static_cast<std::size_t>(bar)];
    if (dark) {
      for (auto& channel : colour) channel = static_cast<std::uint8_t>(channel / 2);
    }
    fill(pixels, width, bar * width / 7, 0, (bar + 1) * width / 7, height, colour);
  }
  // A framed block that crosses the middle and a line that sweeps down, one step a frame.
  const int block = std::max(3, height / 6);
  const int span = std::max(1, width - block);
  const int x = static_cast<int>(frameNumber * 4 % (2L * span));
  const int left = x < span ? x : 2 * span - x;
  const int top = (height - block) / 2;
  fill(pixels, width, left, top, left + block, top + block, {0, 0, 0});
  fill(pixels, width, left + 2, top + 2, left + block - 2, top + block - 2, {255, 255, 255});
  const int line = static_cast<int>(frameNumber * 2 % height);
  fill(pixels, width, 0, line, width, std::min(height, line + 2), {255, 255, 255});
  return Image(width, height, std::move(pixels));
}

Data jpegData(const Image& image) {
  if (image.isEmpty()) return {};  // libjpeg would end the process over a zero size
  jpeg_compress_struct compressor{};
  jpeg_error_mgr errors{};
  compressor.err = jpeg_std_error(&errors);
  jpeg_create_compress(&compressor);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&compressor, &buffer, &size);
  compressor.image_width = static_cast<JDIMENSION>(image.width());
  compressor.image_height = static_cast<JDIMENSION>(image.height());
  compressor.input_components = 4;
  compressor.in_color_space = JCS_EXT_RGBA;
  jpeg_set_defaults(&compressor);
  jpeg_set_quality(&compressor, 85, TRUE);
  jpeg_start_compress(&compressor, TRUE);
  const auto rowBytes = static_cast<std::size_t>(image.width()) * 4;
  // libjpeg reads rows through non-const pointers but does not write them.
  auto* pixels = const_cast<std::uint8_t*>(image.rgba().data());
  while (compressor.next_scanline < compressor.image_height) {
    JSAMPROW row = pixels + compressor.next_scanline * rowBytes;
    jpeg_write_scanlines(&compressor, &row, 1);
  }
  jpeg_finish_compress(&compressor);
  jpeg_destroy_compress(&compressor);
  Data bytes(buffer, buffer + size);
  std::free(buffer);  // jpeg_mem_dest allocates with malloc
  return bytes;
}

}  // namespace zu
