#include "KivSDK/Provenance/detail/PrivateFolder.hpp"

#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv::detail {

std::string provenanceDirectory() { return zu::ZuFileManager::applicationDataDirectory() + "/Provenance"; }

zu::Result<std::string> privateFolder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  if (error) return zu::Error::posix(error.value());
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return zu::Error::posix(errno);
  return path;
}

zu::Result<zu::detail::FileDescriptor> lockedFolder(const std::string& path) {
  auto folder = zu::detail::FileDescriptor::open(path, O_RDONLY | O_DIRECTORY);
  if (!folder) return zu::Error::posix(errno);
  if (zu::detail::retryingInterrupted([&] { return ::flock(folder.get(), LOCK_EX); }) != 0) {
    return zu::Error::posix(errno);
  }
  return folder;
}

}  // namespace kiv::detail
