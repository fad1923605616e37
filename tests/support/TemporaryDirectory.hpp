#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "ZuFileManager/ZuFileManager.hpp"

namespace testing_support {

/// A fresh folder, removed with everything in it when destroyed. It is made under the system's temporary
/// folder or, for a program that writes files for every input it tries (a fuzz target), in memory where the
/// system has a folder for that.
class TemporaryDirectory {
 public:
  enum class Place { disk, memory };

  explicit TemporaryDirectory(Place place = Place::disk) {
    namespace fs = std::filesystem;
    const bool inMemory = place == Place::memory && fs::is_directory("/dev/shm");
    const fs::path base = inMemory ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (base / "kivsdk-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
      throw std::runtime_error("cannot make a temporary folder in " + base.string());
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Makes a fresh temporary folder the application data folder for the lifetime of the object.
class ScopedApplicationData {
 public:
  ScopedApplicationData() { zu::ZuFileManager::setApplicationDataDirectory(folder_.path().string()); }
  ~ScopedApplicationData() { zu::ZuFileManager::setApplicationDataDirectory(std::nullopt); }

  const std::filesystem::path& path() const { return folder_.path(); }

 private:
  TemporaryDirectory folder_;
};

inline void writeFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace testing_support
