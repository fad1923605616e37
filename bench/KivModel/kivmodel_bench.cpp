// Measures the report store on a large list: reports of 10 files each, all with metadata.
//
//   kivmodel_bench persist <data folder> [reports]  time KivModel::persist of the list into <data folder>,
//   the
//                                                   best of five in one process, as an application persists
//   kivmodel_bench load <data folder> [reports]     time one KivModel::loadFromStore, as at start-up
//   kivmodel_bench parse <data folder>               time one bare parse of the same stored bytes by
//   libplist,
//                                                   the reference for the load
//
// The list has 10,000 reports unless a number is given. Run each in its own process (run.sh does), so that
// the peak memory printed belongs to that operation and the load and the parse each start from a fresh heap.
// Prints "key=value" lines: times in wall-clock and CPU seconds (the machine may be shared), memory as the
// peak resident size in KiB.
#include <plist/plist.h>

#include <algorithm>
#include <iostream>
#include <string>

#include "KivSDK/Model/KivModel.hpp"
#include "ProcessFigures.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"

namespace {

using benchfigures::peakResidentKiB;

constexpr int kFilesPerReport = 10;
constexpr int kRuns = 5;

// The best wall-clock and CPU times of the runs timed so far.
struct Best {
  double seconds = 1e300;
  double cpuSeconds = 1e300;

  // Times `work`, which does the measured part alone.
  template <class Work>
  void time(const Work& work) {
    const double cpuStart = benchfigures::cpuSeconds();
    const auto start = benchfigures::Clock::now();
    work();
    seconds = std::min(seconds, benchfigures::since(start));
    cpuSeconds = std::min(cpuSeconds, benchfigures::cpuSeconds() - cpuStart);
  }
};

zu::AnyCodable::Dictionary metadata(int i) {
  using Dictionary = zu::AnyCodable::Dictionary;
  return Dictionary{{"camera", Dictionary{{"model", "Rear wide"}, {"iso", 100 + i % 700}}},
                    {"location", Dictionary{{"lat", 50.45 + i * 1e-6}, {"lon", 30.52}}}};
}

std::vector<kiv::KivReport> largeList(int count) {
  std::vector<kiv::KivReport> reports;
  reports.reserve(count);
  for (int r = 0; r < count; ++r) {
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

int persist(int count) {
  const auto reports = largeList(count);
  const long listKiB = peakResidentKiB();
  Best best;
  for (int run = 0; run < kRuns; ++run) best.time([&] { kiv::KivModel::persist(reports); });
  const long peakKiB = peakResidentKiB();
  const auto bytes = zu::ZuUserDefaults::standard().data(kiv::KivModel::Const::UD::reports);
  if (!bytes) return 1;
  std::cout << "persist_seconds=" << best.seconds << "\npersist_cpu_seconds=" << best.cpuSeconds
            << "\npersist_us_per_report=" << best.seconds * 1e6 / count << "\npersist_peak_kib=" << peakKiB
            << "\nlist_built_kib=" << listKiB
            << "\npersist_peak_to_list=" << static_cast<double>(peakKiB) / static_cast<double>(listKiB)
            << "\nstored_bytes=" << bytes->size() << "\n";
  return 0;
}

// One load, the process's first, as an application's at start-up.
int load(int count) {
  std::vector<kiv::KivReport> reports;
  Best best;
  best.time([&] { reports = kiv::KivModel::loadFromStore(); });
  if (reports.size() != static_cast<std::size_t>(count)) return 1;
  std::cout << "load_seconds=" << best.seconds << "\nload_cpu_seconds=" << best.cpuSeconds
            << "\nload_peak_kib=" << peakResidentKiB() << "\n";
  return 0;
}

// One parse, the process's first, as the load's.
int parse() {
  const auto bytes = zu::ZuUserDefaults::standard().data(kiv::KivModel::Const::UD::reports);
  if (!bytes) return 1;
  plist_t root = nullptr;
  Best best;
  best.time([&] {
    plist_from_bin(reinterpret_cast<const char*>(bytes->data()), static_cast<std::uint32_t>(bytes->size()),
                   &root);
  });
  if (!root) return 1;
  plist_free(root);
  std::cout << "bare_parse_seconds=" << best.seconds << "\nbare_parse_cpu_seconds=" << best.cpuSeconds
            << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: kivmodel_bench persist|load|parse <data folder> [reports]\n";
    return 2;
  }
  zu::ZuFileManager::setApplicationDataDirectory(argv[2]);
  const int count = argc == 4 ? std::stoi(argv[3]) : 10'000;
  const std::string mode = argv[1];
  if (mode == "persist") {
    (void)kiv::KivModel::loadFromStore();  // a fresh folder: writes the version so that load keeps the list
    return persist(count);
  }
  if (mode == "load") return load(count);
  if (mode == "parse") return parse();
  return 2;
}
