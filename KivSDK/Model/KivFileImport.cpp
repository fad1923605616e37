#include "KivSDK/Model/KivFileImport.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "KivSDK/Model/KivModel.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv {
namespace {

zu::Result<zu::Date> lastChange(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return zu::Error::posix(errno);
  return zu::Date::fromTimeIntervalSince1970(static_cast<double>(status.st_mtim.tv_sec) +
                                             static_cast<double>(status.st_mtim.tv_nsec) / 1e9);
}

zu::Error notARecordName(const std::string& name) {
  return zu::Error(
      std::string(zu::Error::posixDomain), EINVAL,
      {{std::string(zu::Error::localizedDescriptionKey), "\"" + name + "\" cannot name a file of a report"}});
}

}  // namespace

zu::Result<KivFile> importMediaFile(const zu::URL& file) {
  const std::filesystem::path path = file.path();
  const auto taken = lastChange(path.string());
  if (!taken) return taken.error();
  std::string extension = path.extension().string();
  if (!extension.empty()) extension.erase(0, 1);
  KivFile record(path.stem().string(), extension, *taken);
  if (!record.hasPlainFileName()) return notARecordName(path.filename().string());

  const zu::URL destination = record.fileURL();
  std::error_code ignored;
  if (!std::filesystem::equivalent(path, destination.path(), ignored)) {
    std::optional<zu::Error> failure;
    zu::ZuFileManager::moveFile(file, destination,
                                [&](bool, std::optional<zu::Error> error) { failure = std::move(error); });
    if (failure) return *failure;
  }
  return record.withCalculatedHash();
}

std::vector<KivReport>::iterator findReport(std::vector<KivReport>& reports, std::string_view selector) {
  const auto first = [&](auto matches) { return std::find_if(reports.begin(), reports.end(), matches); };
  auto found = first([&](const KivReport& each) { return each.id && each.id->uuidString() == selector; });
  if (found == reports.end()) found = first([&](const KivReport& each) { return each.slug == selector; });
  if (found == reports.end()) found = first([&](const KivReport& each) { return each.name == selector; });
  return found;
}

zu::Result<StoredReportFile> addMediaFileToStoredReport(const zu::URL& file, std::string_view report) {
  std::vector<KivReport> reports = KivModel::loadFromStore();
  auto target = findReport(reports, report);
  const bool created = target == reports.end();
  if (created) {
    reports.emplace_back(std::string(report));
    target = std::prev(reports.end());
  }
  auto imported = importMediaFile(file);
  if (!imported) return imported.error();
  std::erase_if(target->files, [&](const KivFile& kept) { return kept.isIdenticalForUI(*imported); });
  target->files.push_back(*imported);
  *target = target->withCalculatedHash();
  KivModel::persist(reports);
  return StoredReportFile{*target, *imported, created};
}

}  // namespace kiv
