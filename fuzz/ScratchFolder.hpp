#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

// A private folder for a fuzz target's files, in memory where the system has one (every input writes), and
// removed when the target exits.
class ScratchFolder {
 public:
  explicit ScratchFolder(const std::string& name) {
    namespace fs = std::filesystem;
    const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (base / (name + "-XXXXXX")).string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};
