// A background session reads its journal of unfinished transfers when it starts, from files an earlier
// process wrote and a crash may have cut. An entry that reads is a request the session will send again, so
// it must survive being written back: a replayed transfer is the same transfer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuNetworking/detail/Journal.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

const zu::detail::Journal& journal() {
  static const testing_support::TemporaryDirectory scratch(
      testing_support::TemporaryDirectory::Place::memory);
  static const zu::detail::Journal instance = [] {
    zu::ZuFileManager::setApplicationDataDirectory(scratch.path().string());
    return zu::detail::Journal("fuzz");
  }();
  return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto& entries = journal();
  // An entry of our own makes the folder; the input replaces its bytes.
  const std::string path = entries.record(zu::URLRequest(*zu::URL::fromString("https://h/")), std::nullopt);
  if (path.empty()) std::abort();
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<long>(size));

  const auto read = entries.entries();  // an unreadable entry is removed
  if (read.size() > 1) std::abort();
  if (read.empty()) return 0;
  zu::detail::Journal::remove(read[0].path);
  const std::string copy = entries.record(read[0].request, read[0].uploadFile);
  const auto again = entries.entries();
  if (copy.empty() || again.size() != 1) std::abort();
  zu::detail::Journal::remove(copy);
  if (again[0].request != read[0].request || again[0].uploadFile != read[0].uploadFile) std::abort();
  return 0;
}
