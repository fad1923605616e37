#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace zu::detail {

/// Owns a POSIX file descriptor and closes it when destroyed.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  /// Opens `path` (with O_CLOEXEC added), retrying when interrupted; an invalid descriptor on failure, with
  /// errno set.
  static FileDescriptor open(const std::string& path, int flags, mode_t mode = 0) {
    int fd = -1;
    do {
      fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return FileDescriptor(fd);
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace zu::detail
