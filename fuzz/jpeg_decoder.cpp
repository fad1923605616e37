// Photos reach the previews from anywhere: the camera, a download, a file the user picked. Damaged, cut
// short or crafted JPEG bytes must decode to a picture or to nothing, reading only within the bytes and never
// beyond the pixel bound, and a picture must hold exactly the pixels its size says (the image checks that).
// Each input decodes as a small preview, libjpeg scaling it down, and then at the full size it stands for.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "KivSDK/Model/detail/JpegDecoder.hpp"

namespace {

/// The longer side of the previews: smaller than most inputs, so that most decode scaled.
constexpr int kPreviewSide = 24;

void expectWithinBounds(const zu::Image& image) {
  if (image.isEmpty()) std::abort();
  const auto pixels = static_cast<std::size_t>(image.width()) * static_cast<std::size_t>(image.height());
  if (pixels > kiv::detail::kMaxJpegPixels) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const zu::Data bytes(data, data + size);
  const auto preview =
      kiv::detail::decodeJpeg(bytes, kPreviewSide, [&bytes] { return kiv::detail::decodeJpeg(bytes); });
  if (!preview) return 0;
  expectWithinBounds(*preview);
  const auto full = preview->atFullSize();
  if (!full) return 0;
  expectWithinBounds(*full);
  if (full->width() != preview->fullWidth() || full->height() != preview->fullHeight()) std::abort();
  if (full->width() < preview->width() || full->height() < preview->height()) std::abort();
  return 0;
}
