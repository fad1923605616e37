// Measures the report store on a large list: 10,000 reports of 10 files each, all with metadata.
//
//   kivmodel_bench persist <data folder>   time KivModel::persist of the list into <data folder>
//   kivmodel_bench load <data folder>      time KivModel::loadFromStore, then libplist's bare parse of the
//                                          same stored bytes, for the ratio between the two
//
// A last argument sets another number of reports (the default is 10,000).
// Run each in its own process (run.sh does), so that the peak memory printed belongs to that operation.
// Prints "key=value" lines; times are the best of three runs, memory is the peak resident size in KiB.
#include <plist/plist.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>

#include "KivSDK/Model/KivModel.hpp"
#include "ProcessFigures.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"

namespace {

using benchfigures::peakResidentKiB;

int gReports = 10'000;  // the optional last argument changes it
constexpr int kFilesPerReport = 10;
constexpr int kRuns = 3;

// The best of three runs of `work`, which answers how long its measured part took.
template <class Work>
double bestSecondsOf(const Work& work) {
  double best = 1e300;
  for (int run = 0; run < kRuns; ++run) best = std::min(best, std::chrono::duration<double>(work()).count());
  return best;
}

zu::AnyCodable::Dictionary metadata(int i) {
  using Dictionary = zu::AnyCodable::Dictionary;
  return Dictionary{{"camera", Dictionary{{"model", "Rear wide"}, {"iso", 100 + i % 700}}},
                    {"location", Dictionary{{"lat", 50.45 + i * 1e-6}, {"lon", 30.52}}}};
}

std::vector<kiv::KivReport> largeList() {
  std::vector<kiv::KivReport> reports;
  reports.reserve(gReports);
  for (int r = 0; r < gReports; ++r) {
    kiv::KivReport report("Report " + std::to_string(r));
    report.note = "Front door, north side";
    report.slug = "r-" + std::to_string(r);
    report.email = "someone@example.org";
    report.setMetadata(metadata(r));
    for (int f = 0; f < kFilesPerReport; ++f) {
      kiv::KivFile file("IMG_" + std::to_string(r * kFilesPerReport + f), "jpg",
                        report.created.addingTimeInterval(f));
      file.slug = "f-" + std::to_string(f);
      file.hash = std::string(64, 'a');
      file.remoteUrl = zu::URL::fromString("https://storage.example.org/files/" + file.name);
      file.setMetadata(metadata(f));
      report.files.push_back(std::move(file));
    }
    reports.push_back(std::move(report));
  }
  return reports;
}

int persist() {
  const auto reports = largeList();
  const long listKiB = peakResidentKiB();
  const double seconds = bestSecondsOf([&] {
    const auto start = std::chrono::steady_clock::now();
    kiv::KivModel::persist(reports);
    return std::chrono::steady_clock::now() - start;
  });
  const auto bytes = zu::ZuUserDefaults::standard().data(kiv::KivModel::Const::UD::reports);
  if (!bytes) return 1;
  std::cout << "persist_seconds=" << seconds << "\npersist_peak_kib=" << peakResidentKiB()
            << "\nlist_built_kib=" << listKiB << "\nstored_bytes=" << bytes->size() << "\n";
  return 0;
}

// Both timings leave out freeing what was read.
int load() {
  std::vector<kiv::KivReport> reports;
  const double loadSeconds = bestSecondsOf([&] {
    reports = {};
    const auto start = std::chrono::steady_clock::now();
    reports = kiv::KivModel::loadFromStore();
    return std::chrono::steady_clock::now() - start;
  });
  const long loadPeakKiB = peakResidentKiB();
  if (reports.size() != static_cast<std::size_t>(gReports)) return 1;
  reports = {};

  const auto bytes = zu::ZuUserDefaults::standard().data(kiv::KivModel::Const::UD::reports);
  const double parseSeconds = bestSecondsOf([&] {
    plist_t root = nullptr;
    const auto start = std::chrono::steady_clock::now();
    plist_from_bin(reinterpret_cast<const char*>(bytes->data()), static_cast<std::uint32_t>(bytes->size()),
                   &root);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    plist_free(root);
    return elapsed;
  });
  std::cout << "load_seconds=" << loadSeconds << "\nload_peak_kib=" << loadPeakKiB
            << "\nbare_parse_seconds=" << parseSeconds
            << "\nload_to_parse_ratio=" << loadSeconds / parseSeconds << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: kivmodel_bench persist|load <data folder> [reports]\n";
    return 2;
  }
  zu::ZuFileManager::setApplicationDataDirectory(argv[2]);
  if (argc == 4) gReports = std::stoi(argv[3]);
  const std::string mode = argv[1];
  if (mode == "persist") {
    (void)kiv::KivModel::loadFromStore();  // a fresh folder: writes the version so that load keeps the list
    return persist();
  }
  if (mode == "load") return load();
  return 2;
}
