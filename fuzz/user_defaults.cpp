// The user-defaults file is read on every call and rewritten on every change, whatever state a crash, a
// disk fault or a sync tool left it in. Reading must never fail hard, and a write must lose nothing: the
// values the file held are still there afterwards, and when the file held anything the store could not
// write again as it was, its bytes were kept aside unchanged as well.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ScratchFolder.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"

namespace {

namespace fs = std::filesystem;

// The application data folder of every input.
struct DataFolder : ScratchFolder {
  DataFolder() : ScratchFolder("kiv-fuzz-defaults") {
    zu::ZuFileManager::setApplicationDataDirectory(path().string());
  }
};

const fs::path& folder() {
  static const DataFolder scratch;
  return scratch.path();
}

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Removes the kept-aside copies and answers what they held; more than one is a fault.
std::optional<std::string> takeKeptAside() {
  std::optional<std::string> kept;
  for (const auto& entry : fs::directory_iterator(folder())) {
    if (!entry.path().filename().string().starts_with("UserDefaults.plist.corrupt-")) continue;
    if (kept) std::abort();
    kept = contents(entry.path());
    fs::remove(entry.path());
  }
  return kept;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const fs::path file = folder() / "UserDefaults.plist";
  std::ofstream(file, std::ios::binary | std::ios::trunc).write(input.data(), static_cast<long>(size));

  auto& defaults = zu::ZuUserDefaults::standard();
  const std::int64_t version = defaults.integer("Kiv.ModelManager.Const.UD.version");
  const auto reports = defaults.data("Kiv.ModelManager.Const.UD.reports");
  if (!defaults.set(1, "fuzz")) std::abort();
  if (defaults.integer("fuzz") != 1) std::abort();
  if (const auto kept = takeKeptAside(); kept && *kept != input) std::abort();
  if ((version != 0 && defaults.integer("Kiv.ModelManager.Const.UD.version") != version) ||
      (reports && defaults.data("Kiv.ModelManager.Const.UD.reports") != reports)) {
    std::abort();  // the store lost a value it held
  }
  return 0;
}
