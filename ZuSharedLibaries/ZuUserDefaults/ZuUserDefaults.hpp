#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

namespace zu {

/**
 * The application's small persistent key-value store: integers and byte buffers by key.
 *
 * Everything lives in one binary property list file, "UserDefaults.plist", in the application data folder
 * (`ZuFileManager::applicationDataDirectory()`, beside Documents), looked up on every call so that a host
 * or a test that moves the folder is followed at once. Reads go to the file each time: another process's
 * writes are seen immediately.
 *
 * Every write replaces the file atomically and durably (a temporary file in the same folder, flushed,
 * renamed over the old one, then the folder flushed), so a crash or power cut at any moment leaves the old
 * or the new content, never a torn or empty file. A file that cannot be read (cut short by a disk fault,
 * mangled by a sync tool) reads as empty, and before the next write replaces it its bytes are copied beside
 * it as "UserDefaults.plist.corrupt-<yyyyMMdd_HHmmss UTC>" and a warning is logged: nothing is lost silently.
 * A write reads, changes and replaces the whole file while holding an exclusive `flock` on
 * "UserDefaults.plist.lock" beside it: concurrent writers, in this process or others, never lose each other's
 * keys, and for one key the last writer wins.
 *
 * @par Thread Safety
 * All operations may be called from any thread and from several processes at once.
 */
class ZuUserDefaults {
 public:
  /// The process's store.
  static ZuUserDefaults& standard();

  /// The integer under `key`; 0 when there is none or the value is not a number (a real is truncated).
  std::int64_t integer(std::string_view forKey) const;
  /// The byte buffer under `key`; nothing when there is none or the value is of another kind.
  std::optional<Data> data(std::string_view forKey) const;

  /// Stores `value` under `forKey`. Fails with a POSIX error when the file cannot be written.
  Result<void> set(std::int64_t value, std::string_view forKey);
  /// Stores `value` under `forKey`. Fails with a POSIX error when the file cannot be written.
  Result<void> set(const Data& value, std::string_view forKey);
  /// Removes the value under `forKey`, if any. Fails with a POSIX error when the file cannot be written.
  Result<void> removeObject(std::string_view forKey);

  /// The path of the backing file.
  static std::string filePath();

 private:
  ZuUserDefaults() = default;

  std::mutex writeMutex_;
};

}  // namespace zu
