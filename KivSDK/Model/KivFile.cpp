#include "KivSDK/Model/KivFile.hpp"

#include <algorithm>
#include <cctype>
#include <span>
#include <utility>

#include "KivSDK/Model/detail/Records.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv {
namespace {

// What the platform's type identifiers call images and movies, by extension.
constexpr std::string_view kImageExtensions[] = {"jpg", "jpeg", "png", "heic", "heif", "gif", "tif", "tiff",
                                                 "bmp", "webp", "dng", "raw",  "cr2",  "nef", "arw"};
constexpr std::string_view kMovieExtensions[] = {"mov", "mp4", "m4v",  "avi",  "mkv",
                                                 "3gp", "mts", "m2ts", "webm", "hevc"};

bool contains(std::span<const std::string_view> table, std::string_view value) {
  return std::find(table.begin(), table.end(), value) != table.end();
}

}  // namespace

KivFile::KivFile(std::string name, std::string extension, zu::Date dateTaken)
    : name(std::move(name)),
      ext(std::move(extension)),
      fileType(fileTypeForExtension(ext)),
      dateTaken(dateTaken) {}

KivFile::FileType KivFile::fileTypeForExtension(std::string_view ext) {
  std::string lower(ext);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  if (contains(kImageExtensions, lower)) return FileType::image;
  if (contains(kMovieExtensions, lower)) return FileType::video;
  return FileType::unknown;
}

zu::URL KivFile::kivDirectory() { return zu::ZuFileManager::documentsSubdirectory("Kiv"); }

std::optional<zu::AnyCodable::Dictionary> KivFile::metadata() const {
  return detail::nestedMetadata(_metadata);
}

void KivFile::setMetadata(const std::optional<zu::AnyCodable::Dictionary>& metadata) {
  _metadata = detail::flatMetadata(metadata);
}

bool KivFile::hasPlainFileName() const {
  return zu::ZuFileManager::isPlainPathComponent(name) &&
         ext.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

zu::URL KivFile::fileURL() const {
  return kivDirectory().appendingPathComponent(name).appendingPathExtension(ext);
}

std::optional<zu::URL> KivFile::localFileLocation() const {
  if (!hasPlainFileName()) return std::nullopt;
  zu::URL url = fileURL();
  if (!zu::ZuFileManager::fileExists(url)) return std::nullopt;
  return url;
}

bool KivFile::canAttemptFileUpload(zu::Date now) const {
  if (remoteUrl) return false;
  if (!_lastFileUploadAttemptDate) return true;
  return now.timeIntervalSince(*_lastFileUploadAttemptDate) >=
         _Const::Values::minimumTimeIntervalBetweenFileUploadRequest;
}

KivFile KivFile::updatingFileUploadAttemptDate(zu::Date date) const {
  KivFile copy = *this;
  copy._lastFileUploadAttemptDate = date;
  return copy;
}

KivFile KivFile::merge(const KivFile& with) const {
  KivFile merged = with;
  merged.fileType = fileTypeForExtension(with.ext);
  merged.slug = detail::newerOrOlder(with.slug, slug);
  merged.description = detail::newerOrOlder(with.description, description);
  merged.hash = detail::newerOrOlder(with.hash, hash);
  merged.remoteUrl = detail::newerOrOlder(with.remoteUrl, remoteUrl);
  merged.setMetadata(detail::newerOrOlder(with.metadata(), metadata()));
  return merged;
}

bool KivFile::isIdenticalForUI(const KivFile& to) const { return name == to.name && ext == to.ext; }

bool operator==(const KivFile& a, const KivFile& b) {
  if (a.slug && b.slug) return *a.slug == *b.slug;
  return a.name == b.name && a.ext == b.ext;
}

bool operator<(const KivFile& a, const KivFile& b) {
  return detail::wholeSeconds(a.dateTaken) < detail::wholeSeconds(b.dateTaken);
}

}  // namespace kiv
