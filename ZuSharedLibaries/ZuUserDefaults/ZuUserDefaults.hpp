#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
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
 * or a test that moves the folder is followed at once: a dictionary of UTF-8 keys and scalar values, laid out
 * as libplist lays it out. Reads go to the file each time: another process's writes are seen immediately.
 * Values are read where the file's bytes lie and written from where the caller's lie, so a large one costs
 * no copies; `snapshot()` reads several values, or a large one without a copy, from one read of the file.
 *
 * Every write replaces the file atomically and durably (a temporary file in the same folder, flushed,
 * renamed over the old one, then the folder flushed), so a crash or power cut at any moment leaves the old
 * or the new content, never a torn or empty file. A file that cannot be read (cut short by a disk fault,
 * mangled by a sync tool) reads as empty, and before the next write replaces it its bytes are copied beside
 * it as "UserDefaults.plist.corrupt-<yyyyMMdd_HHmmss UTC>" and a warning is logged: nothing is lost silently.
 * So is a file that holds what the store cannot write again as it is (arrays or dictionaries, which this
 * store never writes, a repeated key, text that is not UTF-8): the next write keeps the rest.
 * A write reads, changes and replaces the whole file while holding an exclusive `flock` on
 * "UserDefaults.plist.lock" beside it: concurrent writers, in this process or others, never lose each other's
 * keys, and for one key the last writer wins.
 *
 * @par Thread Safety
 * All operations may be called from any thread and from several processes at once.
 */
class ZuUserDefaults {
 public:
  /// The store's values as they were when it was taken: one read of the file.
  class Snapshot {
   public:
    Snapshot(Snapshot&&) noexcept;
    Snapshot& operator=(Snapshot&&) noexcept;
    ~Snapshot();

    /// The integer under `forKey`, as `ZuUserDefaults::integer` reads it.
    std::int64_t integer(std::string_view forKey) const;
    /// The byte buffer under `forKey`, viewed where it lies: valid while the snapshot lives (so not to be
    /// asked of a temporary one).
    std::optional<std::span<const std::uint8_t>> data(std::string_view forKey) const&;
    void data(std::string_view forKey) const&& = delete;

   private:
    friend class ZuUserDefaults;
    struct Contents;
    explicit Snapshot(std::unique_ptr<const Contents> contents);

    std::unique_ptr<const Contents> contents_;
  };

  /// The process's store.
  static ZuUserDefaults& standard();

  /// The values as they are now, read once.
  Snapshot snapshot() const;

  /// The integer under `key`; 0 when there is none or the value is not a number (a real is truncated).
  std::int64_t integer(std::string_view forKey) const;
  /// The byte buffer under `key`; nothing when there is none or the value is of another kind.
  std::optional<Data> data(std::string_view forKey) const;

  /// Stores `value` under `forKey`. Fails with a POSIX error when the file cannot be written.
  Result<void> set(std::int64_t value, std::string_view forKey);
  /// Stores `value` under `forKey`. Fails with a POSIX error when the file cannot be written.
  Result<void> set(const Data& value, std::string_view forKey);
  /**
   * Stores under `forKey` the byte buffer `makeValue` answers, or removes the value under `forKey` when it
   * answers nothing. `makeValue` is called once, while the store is locked, after the file has been read
   * and its bytes let go: a large value and the one it replaces are never in memory together. It must not
   * write to the store. Fails with a POSIX error when the file cannot be written (`makeValue` may not have
   * been called then).
   */
  Result<void> set(const std::function<std::optional<Data>()>& makeValue, std::string_view forKey);
  /// Removes the value under `forKey`, if any. Fails with a POSIX error when the file cannot be written.
  Result<void> removeObject(std::string_view forKey);

  /// The path of the backing file.
  static std::string filePath();

 private:
  ZuUserDefaults() = default;

  std::mutex writeMutex_;
};

}  // namespace zu
