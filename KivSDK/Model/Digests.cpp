#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuDigest/ZuDigest.hpp"

namespace kiv {
namespace {

// Runs `work(i)` for every i below `count` on up to one thread per core.
template <class Work>
void forEachInParallel(std::size_t count, const Work& work) {
  const std::size_t threads = std::min<std::size_t>(count, std::max(1U, std::thread::hardware_concurrency()));
  std::atomic<std::size_t> next{0};
  std::vector<std::jthread> workers;
  for (std::size_t t = 0; t < threads; ++t) {
    workers.emplace_back([&] {
      for (std::size_t i = next++; i < count; i = next++) work(i);
    });
  }
}

}  // namespace

KivFile KivFile::withCalculatedHash() const {
  if (hash) return *this;
  const auto location = localFileLocation();
  if (!location) return *this;
  const auto digest = zu::sha256OfFile(location->path());
  if (!digest) return *this;
  KivFile hashed = *this;
  hashed.hash = zu::hexString(*digest);
  return hashed;
}

KivReport KivReport::withCalculatedHash() const {
  KivReport hashed = *this;
  forEachInParallel(files.size(), [&](std::size_t i) { hashed.files[i] = files[i].withCalculatedHash(); });

  std::vector<std::string> digests;
  for (const auto& file : hashed.files) {
    if (file.hash) digests.push_back(*file.hash);
  }
  // Sorted, so neither the files' order nor their capture times change the report's digest.
  std::sort(digests.begin(), digests.end());
  std::string joined;
  for (const auto& digest : digests) joined += digest;
  hashed.hash = zu::hexString(zu::sha256(joined));
  return hashed;
}

}  // namespace kiv
