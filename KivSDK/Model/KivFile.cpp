#include "KivSDK/Model/KivFile.hpp"

#include <utility>

#include "KivSDK/Model/detail/Records.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/UniformType.hpp"

namespace kiv {

KivFile::KivFile(std::string name, std::string extension, zu::Date dateTaken)
    : name(std::move(name)),
      ext(std::move(extension)),
      fileType(fileTypeForExtension(ext)),
      dateTaken(dateTaken) {}

KivFile::FileType KivFile::fileTypeForExtension(std::string_view ext) {
  switch (zu::uniformTypeForFilenameExtension(ext)) {
    case zu::UniformType::image:
      return FileType::image;
    case zu::UniformType::movie:
      return FileType::video;
    case zu::UniformType::unknown:
      break;
  }
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
