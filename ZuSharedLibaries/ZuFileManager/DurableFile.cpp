#include "ZuFileManager/detail/DurableFile.hpp"

#include <cerrno>
#include <filesystem>

#include "ZuFileManager/detail/FileDescriptor.hpp"

namespace zu::detail {

std::optional<Error> writeAll(int fd, const void* bytes, std::size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  for (std::size_t done = 0; done < count;) {
    const ssize_t step = ::write(fd, next + done, count - done);
    if (step < 0 && errno == EINTR) continue;
    if (step < 0) return Error::posix(errno);
    done += static_cast<std::size_t>(step);
  }
  return std::nullopt;
}

std::optional<Error> syncFolder(const std::string& folder) {
  const auto directory = FileDescriptor::open(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
  if (!directory || ::fsync(directory.get()) != 0) return Error::posix(errno);
  return std::nullopt;
}

std::optional<Error> replaceFileDurably(const std::string& path, const std::string& temporary,
                                        const Data& bytes) {
  std::optional<Error> error;
  {
    const auto file = FileDescriptor::open(temporary, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (!file) return Error::posix(errno);
    error = writeAll(file.get(), bytes.data(), bytes.size());
    if (!error && ::fsync(file.get()) != 0) error = Error::posix(errno);
  }
  if (!error && ::rename(temporary.c_str(), path.c_str()) != 0) error = Error::posix(errno);
  if (error) {
    ::unlink(temporary.c_str());
    return error;
  }
  return syncFolder(std::filesystem::path(path).parent_path().string());
}

}  // namespace zu::detail
