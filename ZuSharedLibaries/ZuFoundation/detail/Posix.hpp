#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

// The POSIX layer the components share: descriptors, calls interrupted by signals, whole reads and writes,
// and file replacements that survive a crash. Failures are POSIX errors (domain "NSPOSIXErrorDomain").
namespace zu::detail {

/// The system's text for an `errno` value (thread-safe, unlike strerror).
std::string systemErrorText(int errorNumber);

/// Calls `call` again for as long as it fails with EINTR (a signal arrived first); answers its last result.
template <class Call>
auto retryingInterrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

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
  ~FileDescriptor();

  /// Opens `path` (with O_CLOEXEC added); an invalid descriptor on failure, with errno set.
  static FileDescriptor open(const std::string& path, int flags, mode_t mode = 0);

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// Reads at most `count` bytes: how many were read, 0 at the end of the file, -1 with errno on failure.
ssize_t readSome(int fd, void* buffer, std::size_t count);
/// Writes all `count` bytes, going on after short writes.
std::optional<Error> writeAll(int fd, const void* bytes, std::size_t count);
/// The file's bytes; fails when it cannot be read, or with EFBIG when it holds more than `limit` bytes.
Result<Data> readWholeFile(const std::string& path,
                           std::size_t limit = std::numeric_limits<std::size_t>::max());

/// Flushes a folder's entries (a rename inside it) to disk.
std::optional<Error> syncFolder(const std::string& folder);
/**
 * Replaces the file at `path` so that a crash at any moment leaves its old or its new content: `write` writes
 * the new content to the descriptor of `temporary` (a path in the same folder, mode 0600), which is flushed
 * and renamed over `path`; then the folder is flushed. On failure (`write`'s included) the temporary file is
 * removed and `path` is untouched.
 */
std::optional<Error> replaceFileDurably(const std::string& path, const std::string& temporary,
                                        const std::function<std::optional<Error>(int fd)>& write);
/// Replaces the file at `path` with `bytes`, as above.
std::optional<Error> replaceFileDurably(const std::string& path, const std::string& temporary,
                                        const Data& bytes);

}  // namespace zu::detail
