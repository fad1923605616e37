// JPEG photos decode with libjpeg-turbo directly, straight into RGBA: for a 12-megapixel photo that is
// several times quicker than a GStreamer pipeline, which decodes to YUV and converts afterwards (the previews
// benchmark measures both).
#include "KivSDK/Model/detail/JpegDecoder.hpp"

#include "ZuImage/detail/PixelBuffer.hpp"

// jpeglib.h needs FILE and size_t declared before it.
#include <csetjmp>
#include <cstddef>
#include <cstdio>
// clang-format off
#include <jpeglib.h>
#include <jerror.h>
// clang-format on

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

namespace kiv::detail {
namespace {

using Orientation = zu::Image::Orientation;

/// libjpeg's error handling: errors jump back to the decoding call, and so does the end of the bytes
/// before the end of the picture (libjpeg would only warn and fill the rest with grey). Other warnings
/// are ignored, and nothing is printed.
struct ErrorHandling {
  jpeg_error_mgr manager{};  // first: libjpeg hands out a pointer to it
  std::jmp_buf failed{};
};

[[noreturn]] void fail(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorHandling*>(info->err)->failed, 1);
}

void warn(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) fail(info);
}

/// Reads EXIF's unsigned integers in the byte order the TIFF header names.
class TiffReader {
 public:
  explicit TiffReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool bigEndian() const { return bytes_[0] == 'M'; }
  std::optional<std::uint32_t> read(std::size_t offset, std::size_t size) const {
    if (offset > bytes_.size() || bytes_.size() - offset < size) return std::nullopt;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const std::size_t at = bigEndian() ? offset + i : offset + size - 1 - i;
      value = (value << 8) | bytes_[at];
    }
    return value;
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

/// The value of the orientation tag (1 to 8) in the first directory of an EXIF block, if it has one.
std::optional<std::uint32_t> exifOrientation(std::span<const std::uint8_t> exif) {
  static constexpr std::array<std::uint8_t, 6> kSignature{'E', 'x', 'i', 'f', 0, 0};
  if (exif.size() < kSignature.size() + 8 || !std::equal(kSignature.begin(), kSignature.end(), exif.begin()))
    return std::nullopt;
  const TiffReader tiff(exif.subspan(kSignature.size()));
  const auto directory = tiff.read(4, 4);
  const auto entries = directory ? tiff.read(*directory, 2) : std::nullopt;
  if (!entries) return std::nullopt;
  constexpr std::uint32_t kOrientationTag = 0x0112;
  constexpr std::size_t kEntrySize = 12;
  for (std::uint32_t i = 0; i < *entries; ++i) {
    const std::size_t entry = *directory + 2 + i * kEntrySize;
    const auto tag = tiff.read(entry, 2);
    if (!tag) return std::nullopt;
    if (*tag == kOrientationTag) return tiff.read(entry + 8, 2);
  }
  return std::nullopt;
}

/// The platform's orientation for an EXIF orientation value: how the stored pixels turn to show upright.
Orientation orientationForExif(std::optional<std::uint32_t> exif) {
  // Indexed by the EXIF value, 1 to 8 (0 stands for none).
  static constexpr std::array<Orientation, 9> kOrientations{
      Orientation::up,           Orientation::up,
      Orientation::upMirrored,   Orientation::down,
      Orientation::downMirrored, Orientation::leftMirrored,
      Orientation::right,        Orientation::rightMirrored,
      Orientation::left};
  return exif && *exif < kOrientations.size() ? kOrientations[*exif] : Orientation::up;
}

Orientation orientationOf(const jpeg_decompress_struct& info) {
  for (jpeg_saved_marker_ptr marker = info.marker_list; marker; marker = marker->next) {
    if (marker->marker != JPEG_APP0 + 1) continue;
    if (const auto exif = exifOrientation({marker->data, marker->data_length}))
      return orientationForExif(exif);
  }
  return Orientation::up;
}

/// Sizes of a decoded picture: as decoded, and as stored.
struct Decoded {
  int width = 0;
  int height = 0;
  int fullWidth = 0;
  int fullHeight = 0;
  Orientation orientation = Orientation::up;
};

/// The eighths of its size (1 to 8) that a picture stored at `info`'s size is decoded at: the fewest that
/// still give its longer side `longerSide` pixels, all eight when it has no more.
unsigned eighthsFor(const jpeg_decompress_struct& info, std::optional<int> longerSide) {
  constexpr std::int64_t kAll = 8;
  if (!longerSide) return kAll;
  const std::int64_t longer = std::max(info.image_width, info.image_height);
  const std::int64_t eighths = (kAll * *longerSide + longer - 1) / longer;
  return static_cast<unsigned>(std::clamp<std::int64_t>(eighths, 1, kAll));
}

/// Decodes into `pixels` with `info`, made by the caller; false when libjpeg fails. Only libjpeg's own
/// frames lie between its failure and the jump back here, and nothing of this frame is used after it.
bool decompress(jpeg_decompress_struct& info, ErrorHandling& errors, const zu::Data& bytes,
                std::optional<int> longerSide, std::vector<std::uint8_t>& pixels, Decoded& decoded) {
  if (setjmp(errors.failed)) return false;
  jpeg_mem_src(&info, bytes.data(), bytes.size());
  jpeg_save_markers(&info, JPEG_APP0 + 1, 0xFFFF);
  jpeg_read_header(&info, TRUE);
  info.out_color_space = JCS_EXT_RGBA;
  if (static_cast<std::size_t>(info.image_width) * info.image_height > kMaxJpegPixels) return false;
  // libjpeg's scaled decoding leaves out the detail a smaller picture cannot show, which costs most of the
  // inverse transform, the colour conversion and the pixels' memory.
  info.scale_num = eighthsFor(info, longerSide);
  info.scale_denom = 8;
  jpeg_start_decompress(&info);
  const std::size_t rowBytes = static_cast<std::size_t>(info.output_width) * 4;
  pixels = zu::detail::pixelBuffer(rowBytes * info.output_height);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = pixels.data() + rowBytes * info.output_scanline;
    jpeg_read_scanlines(&info, &row, 1);
  }
  decoded = {.width = static_cast<int>(info.output_width),
             .height = static_cast<int>(info.output_height),
             .fullWidth = static_cast<int>(info.image_width),
             .fullHeight = static_cast<int>(info.image_height),
             .orientation = orientationOf(info)};
  jpeg_finish_decompress(&info);
  return true;
}

}  // namespace

bool isJpeg(const zu::Data& bytes) {
  return bytes.size() > 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF;
}

std::optional<zu::Image> decodeJpeg(const zu::Data& bytes, std::optional<int> longerSide,
                                    zu::Image::FullSizeDecoder decodeFullSize) {
  jpeg_decompress_struct info{};
  ErrorHandling errors;
  info.err = jpeg_std_error(&errors.manager);
  errors.manager.error_exit = fail;
  errors.manager.emit_message = warn;
  jpeg_create_decompress(&info);
  std::vector<std::uint8_t> pixels;
  Decoded decoded;
  const bool succeeded = decompress(info, errors, bytes, longerSide, pixels, decoded);
  jpeg_destroy_decompress(&info);
  if (!succeeded) return std::nullopt;
  zu::Image image(decoded.width, decoded.height, std::move(pixels), 1, decoded.orientation);
  if (decoded.width == decoded.fullWidth && decoded.height == decoded.fullHeight) return image;
  return image.reducedFrom(decoded.fullWidth, decoded.fullHeight, std::move(decodeFullSize));
}

}  // namespace kiv::detail
