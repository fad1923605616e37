// Measures the SDK's content digests on real files; run.sh beside it compares them with `openssl dgst`.
//
// digest_bench file <data folder> <name.ext>
//     times KivFile::withCalculatedHash on Documents/Kiv/<name.ext>
// digest_bench report <data folder> <count>
//     times KivReport::withCalculatedHash on f0.bin ... f<count-1>.bin, in parallel, then one file after
//     another
//
// Prints "key=value" lines: seconds, the digest, and the process's peak resident memory in KiB.
#include <cstdlib>
#include <iostream>
#include <string>

#include "KivSDK/Model/KivReport.hpp"
#include "ProcessFigures.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace {

using benchfigures::peakResidentKiB;

template <class Work>
double secondsOf(const Work& work) {
  const auto start = benchfigures::Clock::now();
  work();
  return benchfigures::since(start);
}

int timeFile(const std::string& fileName) {
  const auto dot = fileName.rfind('.');
  const kiv::KivFile file(fileName.substr(0, dot), fileName.substr(dot + 1), zu::Date::now());
  kiv::KivFile hashed = file;
  const double seconds = secondsOf([&] { hashed = file.withCalculatedHash(); });
  if (!hashed.hash) return 1;
  std::cout << "seconds=" << seconds << "\nhash=" << *hashed.hash << "\npeak_kib=" << peakResidentKiB()
            << "\n";
  return 0;
}

int timeReport(int count) {
  kiv::KivReport report("bench");
  for (int i = 0; i < count; ++i) report.files.emplace_back("f" + std::to_string(i), "bin", zu::Date::now());

  kiv::KivReport parallel = report;
  const double parallelSeconds = secondsOf([&] { parallel = report.withCalculatedHash(); });
  const double sequentialSeconds = secondsOf([&] {
    for (auto& file : report.files) file = file.withCalculatedHash();
  });
  std::cout << "parallel_seconds=" << parallelSeconds << "\nsequential_seconds=" << sequentialSeconds
            << "\nhash=" << parallel.hash.value_or("") << "\npeak_kib=" << peakResidentKiB() << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: digest_bench file <data folder> <name.ext> | report <data folder> <count>\n";
    return 2;
  }
  const std::string mode = argv[1];
  zu::ZuFileManager::setApplicationDataDirectory(argv[2]);
  if (mode == "file") return timeFile(argv[3]);
  if (mode == "report") return timeReport(std::atoi(argv[3]));
  return 2;
}
