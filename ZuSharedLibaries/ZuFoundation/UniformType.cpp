#include "ZuFoundation/UniformType.hpp"

#include <algorithm>
#include <cctype>
#include <span>
#include <string>

namespace zu {
namespace {

constexpr std::string_view kImageExtensions[] = {"jpg", "jpeg", "png", "heic", "heif", "gif", "tif", "tiff",
                                                 "bmp", "webp", "dng", "raw",  "cr2",  "nef", "arw"};
constexpr std::string_view kMovieExtensions[] = {"mov", "mp4", "m4v",  "avi",  "mkv",
                                                 "3gp", "mts", "m2ts", "webm", "hevc"};

bool contains(std::span<const std::string_view> table, std::string_view value) {
  return std::find(table.begin(), table.end(), value) != table.end();
}

}  // namespace

UniformType uniformTypeForFilenameExtension(std::string_view extension) {
  std::string lower(extension);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  if (contains(kImageExtensions, lower)) return UniformType::image;
  if (contains(kMovieExtensions, lower)) return UniformType::movie;
  return UniformType::unknown;
}

}  // namespace zu
