// The evidence flow through KivAPI against a running kiv-service; run.sh beside it starts the service, makes
// the media files and times the `curl` tool on the same uploads.
//
//   kivapi_bench <base URL> <CA file> <token> <application data folder> [provenance]
//
// Every file in <folder>/Documents/Kiv becomes a file of one report. Timed: `send`, every `uploadContent`
// started at once, `forceStatusUpdate` until "confirmed", `generatePDF`. With "provenance", the flow also
// signs the device's statements about the files (as an import does), sends them after the report, and
// fetches the manifest and its time-stamp before the certificate. Prints "key=value" lines: seconds (the
// whole flow), upload_seconds, files, bytes, status, the largest thread count seen, peak resident memory in
// KiB, and the certificate's path.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "ProcessFigures.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace {

using benchfigures::Clock;
using benchfigures::peakResidentKiB;
using benchfigures::since;
using benchfigures::threadCount;

std::atomic<int> mostThreads{0};

void sampleThreads() {
  const int now = threadCount();
  int seen = mostThreads.load();
  while (now > seen && !mostThreads.compare_exchange_weak(seen, now)) {
  }
}

/// Waits for `count` completions of the operations started with `completion()`, then answers the last value.
template <class Value>
class Completions {
 public:
  explicit Completions(int count) : remaining_(count) {}
  auto completion() {
    return [this](auto value, std::optional<zu::Error> error) {
      sampleThreads();
      std::lock_guard lock(mutex_);
      if (error)
        failure_ = error->localizedDescription() + " " + zu::AnyCodable(error->userInfo()).description();
      if constexpr (std::is_same_v<decltype(value), bool>) {
        if (value) last_ = value;
      } else if (value) {
        last_ = std::move(*value);
      }
      --remaining_;
      done_.notify_all();
    };
  }
  /// The last value, or nothing when any operation failed (the failure is printed).
  std::optional<Value> wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [&] { return remaining_ == 0; });
    if (failure_) std::cerr << "failed: " << *failure_ << "\n";
    return failure_ ? std::nullopt : last_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int remaining_;
  std::optional<Value> last_;
  std::optional<std::string> failure_;
};

template <class Value, class Start>
std::optional<Value> run(Start start) {
  Completions<Value> completions(1);
  start(completions.completion());
  return completions.wait();
}

kiv::KivReport mediaReport() {
  kiv::KivReport report("Benchmark");
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(kiv::KivFile::kivDirectory().path())) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const auto& path = paths[i];
    report.files.emplace_back(path.stem().string(), path.extension().string().substr(1),
                              zu::Date(7.36e8 + static_cast<double>(i)));
  }
  return report.withCalculatedHash();
}

/// The device's statements about the report's files, signed as an import signs them and sent once the
/// service has the report.
bool signStatements(const kiv::KivReport& report) {
  return static_cast<bool>(kiv::KivProvenance::signStatements(report, report.files));
}
bool sendStatements(const kiv::KivReport& report) {
  return static_cast<bool>(run<std::vector<kiv::KivProvenance::StatementReceipt>>(
      [&](auto done) { kiv::KivProvenance::sendStatements(report, done); }));
}
/// The signed manifest and its time-stamp, as a host keeps them beside the certificate.
bool fetchManifest(const kiv::KivReport& report) {
  return run<std::string>([&](auto done) { kiv::KivProvenance::fetchManifest(report, done); }) &&
         run<zu::Data>([&](auto done) { kiv::KivProvenance::fetchTimestamp(report, done); });
}

}  // namespace

int main(int argc, char** argv) {
  const bool provenance = argc == 6 && std::string_view(argv[5]) == "provenance";
  if (argc != 5 && !provenance) {
    std::cerr << "usage: kivapi_bench <base URL> <CA file> <token> <application data folder> [provenance]\n";
    return 2;
  }
  zu::ZuFileManager::setApplicationDataDirectory(argv[4]);
  const auto service = kiv::KivAPI::redirectedNetworkingType(argv[1], argv[2]);
  if (!service) {
    std::cerr << service.error().localizedDescription() << "\n";
    return 2;
  }
  kiv::KivAPI::set_ZuNetworkingType(*service);
  kiv::KivAPI::setup(argv[3]);
  const kiv::KivReport local = mediaReport();
  std::uintmax_t bytes = 0;
  for (const kiv::KivFile& file : local.files) bytes += std::filesystem::file_size(file.fileURL().path());

  const auto start = Clock::now();
  if (provenance && !signStatements(local)) return 1;
  auto report = run<kiv::KivReport>([&](auto done) { kiv::KivAPI::send(local, "en", done); });
  if (!report || (provenance && !sendStatements(*report))) return 1;

  const auto uploadStart = Clock::now();
  Completions<kiv::KivFile> uploads(static_cast<int>(report->files.size()));
  for (const kiv::KivFile& file : report->files) {
    kiv::KivAPI::uploadContent(file, *report, uploads.completion(),
                               [](std::int64_t, std::int64_t) { sampleThreads(); });
  }
  if (!uploads.wait()) return 1;
  const double uploadSeconds = since(uploadStart);

  for (int attempt = 0; attempt < 100 && report->proofStatus() != kiv::KivReport::ProofStatus::confirmed;
       ++attempt) {
    report = run<kiv::KivReport>([&](auto done) { kiv::KivAPI::forceStatusUpdate(*report, done); });
    if (!report) return 1;
  }
  if (provenance && !fetchManifest(*report)) return 1;
  if (!run<bool>([&](auto done) { kiv::KivAPI::generatePDF(*report, "en", done); })) return 1;
  const double seconds = since(start);

  std::cout << "seconds=" << seconds << "\nupload_seconds=" << uploadSeconds
            << "\nfiles=" << report->files.size() << "\nbytes=" << bytes
            << "\nstatus=" << kiv::KivReport::string(report->proofStatus())
            << "\nthreads=" << mostThreads.load() << "\npeak_kib=" << peakResidentKiB()
            << "\npdf=" << report->pdfURL().path() << "\n";
  return report->proofStatus() == kiv::KivReport::ProofStatus::confirmed ? 0 : 1;
}
