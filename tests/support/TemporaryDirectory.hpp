#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "ZuFileManager/ZuFileManager.hpp"

namespace testing_support {

/// A fresh folder under the system's temporary folder, removed with everything in it when destroyed.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kivsdk-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
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
