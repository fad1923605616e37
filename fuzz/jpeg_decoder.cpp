// Photos reach the previews from anywhere: the camera, a download, a file the user picked. Damaged, cut
// short or crafted JPEG bytes must decode to a picture or to nothing, reading only within the bytes and never
// beyond the pixel bound, and a picture must hold exactly the pixels its size says (the image checks that).
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "KivSDK/Previews/detail/JpegDecoder.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const zu::Data bytes(data, data + size);
  const auto image = kiv::detail::decodeJpeg(bytes);
  if (!image) return 0;
  if (image->isEmpty()) std::abort();
  const auto pixels = static_cast<std::size_t>(image->width()) * static_cast<std::size_t>(image->height());
  if (pixels > kiv::detail::kMaxJpegPixels) std::abort();
  return 0;
}
