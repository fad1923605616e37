#include "ReportStore.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "KivSDK/Model/KivModel.hpp"
#include "KivSDK/Model/KivReportList.hpp"
#include "ToolError.hpp"
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

bool sameId(const kiv::KivReport& a, const kiv::KivReport& b) { return a.id && a.id == b.id; }

}  // namespace

ReportStore ReportStore::load() {
  // Under the lock: the store's first load sets it up and clears it, which must not run between another
  // process's read and write.
  const StoreLock lock;
  return ReportStore(kiv::KivModel::loadFromStore());
}

const kiv::KivReport& ReportStore::find(std::string_view selector) const {
  const auto found = kiv::findReport(reports_, selector);
  if (found) return reports_[*found];
  const std::string problem = found.error().localizedDescription() + ": kiv report list shows the reports";
  if (found.error().code() == ENOENT) fail(problem);
  reject(problem);
}

void ReportStore::create(const kiv::KivReport& report) {
  commit([&](std::vector<kiv::KivReport>& reports) {
    if (const auto problem = kiv::checkNewReportName(reports, report.name)) {
      const std::string text = problem->localizedDescription();
      if (problem->code() == EEXIST) fail(text + "; choose another name");
      reject(text);
    }
    reports.push_back(report);
  });
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
