#include "ReportStore.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "Context.hpp"
#include "KivSDK/Model/KivModel.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kivcli {
namespace {

/// An exclusive lock on the store, held by this process for the object's lifetime.
class StoreLock {
 public:
  StoreLock() {
    const std::filesystem::path folder = zu::ZuFileManager::applicationDataDirectory();
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    const std::string path = (folder / "kiv.lock").string();
    descriptor_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor_ < 0 || ::flock(descriptor_, LOCK_EX) != 0) {
      fail("cannot lock the report store at " + path + ": " + std::generic_category().message(errno) +
           "; check that the data folder is writable");
    }
  }
  ~StoreLock() { ::close(descriptor_); }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  int descriptor_ = -1;
};

std::string idText(const kiv::KivReport& report) {
  return report.id ? report.id->uuidString() : std::string();
}

std::string upper(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  return result;
}

bool sameId(const kiv::KivReport& a, const kiv::KivReport& b) { return a.id && a.id == b.id; }

}  // namespace

ReportStore ReportStore::load() {
  // Under the lock: the store's first load sets it up and clears it, which must not run between another
  // process's read and write.
  const StoreLock lock;
  return ReportStore(kiv::KivModel::loadFromStore());
}

const kiv::KivReport& ReportStore::find(std::string_view selector) const {
  if (selector.empty()) reject("a report must be named: give its id, a prefix of it, its slug or its name");
  const std::string wanted = upper(selector);
  const std::function<bool(const kiv::KivReport&)> criteria[] = {
      [&](const kiv::KivReport& r) { return idText(r) == wanted; },
      [&](const kiv::KivReport& r) { return r.slug == selector; },
      [&](const kiv::KivReport& r) { return r.name == selector; },
      [&](const kiv::KivReport& r) { return idText(r).starts_with(wanted); },
  };
  for (const auto& matches : criteria) {
    const auto count = std::count_if(reports_.begin(), reports_.end(), matches);
    if (count == 1) return *std::find_if(reports_.begin(), reports_.end(), matches);
    if (count > 1) {
      reject("\"" + std::string(selector) + "\" names " + std::to_string(count) +
             " reports: give more of the id (kiv report list shows them)");
    }
  }
  reject("no report \"" + std::string(selector) + "\": kiv report list shows the reports");
}

void ReportStore::save(const kiv::KivReport& report) {
  commit([&](std::vector<kiv::KivReport>& reports) {
    const auto stored = std::find_if(reports.begin(), reports.end(),
                                     [&](const kiv::KivReport& each) { return sameId(each, report); });
    if (stored == reports.end()) {
      reports.push_back(report);
    } else {
      *stored = report;
    }
  });
}

void ReportStore::remove(const kiv::KivReport& report) {
  commit([&](std::vector<kiv::KivReport>& reports) {
    std::erase_if(reports, [&](const kiv::KivReport& each) { return sameId(each, report); });
  });
}

void ReportStore::commit(const std::function<void(std::vector<kiv::KivReport>&)>& change) {
  const StoreLock lock;
  std::vector<kiv::KivReport> reports = kiv::KivModel::loadFromStore();
  change(reports);
  kiv::KivModel::persist(reports);
}

}  // namespace kivcli
