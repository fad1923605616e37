#include "KivSDK/Model/KivFileImport.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "ZuDate/ZuDate.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace kiv {
namespace {

namespace fs = std::filesystem;
using zu::detail::FileDescriptor;

std::string fileName(const KivFile& file) { return file.name + "." + file.ext; }

/// `errno`'s error, its text saying what was being done.
zu::Error failed(const std::string& doing) {
  const int code = errno;
  return zu::Error::posix(code, doing + ": " + zu::detail::systemErrorText(code));
}

std::string lowerExtension(const fs::path& path) {
  std::string extension = path.extension().string();
  if (!extension.empty()) extension.erase(0, 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

/// The source's status; refused unless it is a non-empty regular file with an extension.
zu::Result<struct stat> checkedSource(const fs::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return failed("cannot read " + path.string());
  if (S_ISDIR(status.st_mode))
    return zu::Error::posix(EISDIR, path.string() + " is a folder, not a media file");
  if (!S_ISREG(status.st_mode)) return zu::Error::posix(EINVAL, path.string() + " is not a regular file");
  if (status.st_size == 0) return zu::Error::posix(EINVAL, path.string() + " is empty");
  if (lowerExtension(path).empty()) {
    return zu::Error::posix(EINVAL, path.string() + " has no extension, so its kind of media cannot be told");
  }
  return status;
}

/// The record of `source` before it has a free name and a digest.
KivFile recordFor(const fs::path& source, const struct stat& status, const MediaImportOptions& options) {
  const zu::Date taken = options.dateTaken.value_or(zu::Date::fromTimeIntervalSince1970(
      static_cast<double>(status.st_mtim.tv_sec) + static_cast<double>(status.st_mtim.tv_nsec) / 1e9));
  KivFile record(zu::stringWithLocalDateTimeForFileNames(taken), lowerExtension(source), taken);
  record.description = source.filename().string();
  return record;
}

/// Copies `source` to a new hidden file in `folder`, flushed to disk; answers the copy's path.
zu::Result<std::string> copyInto(const fs::path& source, const std::string& folder) {
  std::string copy = folder + "/.importing.XXXXXX";
  const FileDescriptor target(::mkostemp(copy.data(), O_CLOEXEC));
  if (!target) return failed("cannot write into the media folder " + folder);
  std::error_code error;
  fs::copy_file(source, copy, fs::copy_options::overwrite_existing, error);
  if (!error && ::fsync(target.get()) != 0) error.assign(errno, std::generic_category());
  if (!error) return copy;
  ::unlink(copy.c_str());
  return zu::Error::posix(error.value(),
                          "cannot copy " + source.string() + " into the media folder: " + error.message());
}

/// Refuses `digest` when a file of `report` has it already.
zu::Result<void> checkNotInReport(const std::string& digest, const fs::path& source,
                                  const KivReport& report) {
  const auto same = std::find_if(report.files.begin(), report.files.end(), [&](const KivFile& file) {
    return file.withCalculatedHash().hash == digest;
  });
  if (same == report.files.end()) return {};
  return zu::Error::posix(
      EEXIST, source.string() + " is already in report \"" + report.name + "\", as " + fileName(*same));
}

/**
 * Renames `staged` to the first name of `record` (name, name_2, name_3...) that neither `taken` nor a file of
 * the media folder has, never replacing a file; answers the record under that name.
 */
zu::Result<KivFile> placeUnderFreeName(const std::string& staged, KivFile record,
                                       const std::set<std::string>& taken) {
  const std::string base = record.name;
  for (int suffix = 2;; ++suffix) {
    if (!taken.contains(fileName(record))) {
      const std::string target = record.fileURL().path();
      if (::renameat2(AT_FDCWD, staged.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0)
        return record;
      if (errno != EEXIST) return failed("cannot place " + target);
    }
    record.name = base + "_" + std::to_string(suffix);
  }
}

/// Hashes the staged bytes, refuses them when `report` holds them already, and puts them in place.
zu::Result<KivFile> place(const std::string& staged, const fs::path& source, KivFile record,
                          const KivReport& report, const std::vector<KivReport>& reports) {
  const auto digest = zu::sha256OfFile(staged);
  if (!digest) return failed("cannot read " + source.string());
  record.hash = zu::hexString(*digest);
  if (auto fresh = checkNotInReport(*record.hash, source, report); !fresh) return fresh.error();
  std::set<std::string> taken;
  for (const KivFile& file : report.files) taken.insert(fileName(file));
  for (const KivReport& other : reports) {
    for (const KivFile& file : other.files) taken.insert(fileName(file));
  }
  return placeUnderFreeName(staged, std::move(record), taken);
}

}  // namespace

zu::Result<KivFile> importMediaFile(const zu::URL& file, const KivReport& report,
                                    const std::vector<KivReport>& reports,
                                    const MediaImportOptions& options) {
  const fs::path source = file.path();
  const auto status = checkedSource(source);
  if (!status) return status.error();
  const std::string folder = KivFile::kivDirectory().path();
  std::error_code ignored;
  if (options.move && fs::equivalent(source.parent_path(), folder, ignored)) {
    return zu::Error::posix(EINVAL,
                            source.string() +
                                " is in the media folder, where files may be other reports' evidence: "
                                "import a copy of it instead");
  }
  struct stat folderStatus {};
  if (::stat(folder.c_str(), &folderStatus) != 0) return failed("cannot use the media folder " + folder);
  // A move within one file system renames the file itself; anything else places a flushed copy.
  const bool renames = options.move && status->st_dev == folderStatus.st_dev;
  std::string staged = source.string();
  if (!renames) {
    auto copy = copyInto(source, folder);
    if (!copy) return copy.error();
    staged = *copy;
  }
  auto placed = place(staged, source, recordFor(source, *status, options), report, reports);
  if (!placed) {
    if (!renames) ::unlink(staged.c_str());
    return placed.error();
  }
  if (options.move && !renames) ::unlink(source.c_str());
  // The new name reaches the disk now; should that fail, the file is in place all the same.
  static_cast<void>(zu::detail::syncFolder(folder));
  return placed;
}

zu::Result<void> undoMediaImport(const KivFile& imported, const zu::URL& file,
                                 const MediaImportOptions& options) {
  if (!options.move) return zu::ZuFileManager::removeItem(imported.fileURL());
  std::optional<zu::Error> failure;
  zu::ZuFileManager::moveFile(imported.fileURL(), file, [&failure](bool, std::optional<zu::Error> error) {
    failure = std::move(error);
  });
  if (failure) return *failure;
  return {};
}

}  // namespace kiv
