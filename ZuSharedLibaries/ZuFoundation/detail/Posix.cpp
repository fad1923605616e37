#include "ZuFoundation/detail/Posix.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

namespace zu::detail {

std::string systemErrorText(int errorNumber) {
  char buffer[256] = {};
  // The GNU strerror_r answers either its own static text or the buffer.
  return ::strerror_r(errorNumber, buffer, sizeof buffer);
}

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

FileDescriptor FileDescriptor::open(const std::string& path, int flags, mode_t mode) {
  return FileDescriptor(retryingInterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); }));
}

ssize_t readSome(int fd, void* buffer, std::size_t count) {
  return retryingInterrupted([&] { return ::read(fd, buffer, count); });
}

std::optional<Error> writeAll(int fd, const void* bytes, std::size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  for (std::size_t done = 0; done < count;) {
    const ssize_t step = retryingInterrupted([&] { return ::write(fd, next + done, count - done); });
    if (step <= 0) return Error::posix(step < 0 ? errno : EIO);
    done += static_cast<std::size_t>(step);
  }
  return std::nullopt;
}

Result<Data> readWholeFile(const std::string& path, std::size_t limit) {
  const auto file = FileDescriptor::open(path, O_RDONLY);
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return Error::posix(errno);
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > limit) return Error::posix(EFBIG);
  Data bytes(size);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = readSome(file.get(), bytes.data() + done, size - done);
    if (count < 0) return Error::posix(errno);
    if (count == 0) break;  // it shrank meanwhile
    done += static_cast<std::size_t>(count);
  }
  bytes.resize(done);
  return bytes;
}

std::optional<Error> syncFolder(const std::string& folder) {
  const auto directory = FileDescriptor::open(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
  if (!directory || ::fsync(directory.get()) != 0) return Error::posix(errno);
  return std::nullopt;
}

std::optional<Error> replaceFileDurably(const std::string& path, const std::string& temporary,
                                        const std::function<std::optional<Error>(int fd)>& write) {
  std::optional<Error> error;
  {
    const auto file = FileDescriptor::open(temporary, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (!file) return Error::posix(errno);
    error = write(file.get());
    if (!error && ::fsync(file.get()) != 0) error = Error::posix(errno);
  }
  if (!error && ::rename(temporary.c_str(), path.c_str()) != 0) error = Error::posix(errno);
  if (error) {
    ::unlink(temporary.c_str());
    return error;
  }
  return syncFolder(std::filesystem::path(path).parent_path().string());
}

std::optional<Error> replaceFileDurably(const std::string& path, const std::string& temporary,
                                        const Data& bytes) {
  return replaceFileDurably(path, temporary,
                            [&](int fd) { return writeAll(fd, bytes.data(), bytes.size()); });
}

}  // namespace zu::detail
