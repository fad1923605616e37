#include "ZuUserDefaults/ZuUserDefaults.hpp"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <typeinfo>

#include "ZuDate/ZuDate.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/internal/Plist.hpp"
#include "ZuFoundation/internal/Posix.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace zu {
namespace {

using detail::FileDescriptor;
using detail::Plist;

constexpr std::string_view kFileName = "UserDefaults.plist";

// The top-level dictionary of the file's bytes; nothing when they hold no dictionary.
Plist rootOf(const Data& bytes) {
  Plist root = detail::parsePlist(bytes.data(), bytes.size());
  return PLIST_IS_DICT(root.get()) ? std::move(root) : nullptr;
}

// The file's top-level dictionary; nothing when the file is missing or holds no dictionary.
Plist readRoot(const std::string& path) {
  const auto bytes = ZuFileManager::contents(path);
  return bytes ? rootOf(*bytes) : nullptr;
}

// Writes `bytes` to a new file at `path`, never over an existing one (EEXIST then).
std::optional<Error> writeNewFileDurably(const std::string& path, const Data& bytes) {
  const auto file = FileDescriptor::open(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (!file) return Error::posix(errno);
  if (auto error = detail::writeAll(file.get(), bytes.data(), bytes.size())) return error;
  if (::fsync(file.get()) != 0) return Error::posix(errno);
  return std::nullopt;
}

// A store that cannot be read is about to be replaced: its bytes are first copied beside it, to
// "<store>.corrupt-<UTC time>" (with "-2", "-3", ... when that name is taken, so no earlier copy is ever
// overwritten), and a warning says where. The replacement's folder flush makes the copy durable too.
std::optional<Error> keepAside(const std::string& path, const Data& bytes) {
  constexpr int kAttempts = 1000;
  const std::string stem = path + ".corrupt-" + stringWithLocalDateTimeForFileNames(Date::now());
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    const std::string aside = attempt == 1 ? stem : stem + "-" + std::to_string(attempt);
    auto error = writeNewFileDurably(aside, bytes);
    if (!error) {
      std::string message = "Could not read ";
      message.append(path).append("; its bytes are kept in ").append(aside);
      ZuLogger::log(message, &typeid(ZuUserDefaults), ZuLogger::LogLevel::warning);
      return std::nullopt;
    }
    if (error->code() != EEXIST) return error;
  }
  return Error::posix(EEXIST);
}

// The value under `key`, with the parsed file that owns it.
struct StoredValue {
  Plist root;
  plist_t node = nullptr;
};

StoredValue readValue(std::string_view key) {
  StoredValue value{readRoot(ZuUserDefaults::filePath())};
  if (value.root) value.node = plist_dict_get_item(value.root.get(), std::string(key).c_str());
  return value;
}

FileDescriptor lockStore(const std::string& path) {
  auto lock = FileDescriptor::open(path + ".lock", O_RDWR | O_CREAT, 0600);
  if (!lock) return lock;
  const int locked = detail::retryingInterrupted([&] { return ::flock(lock.get(), LOCK_EX); });
  return locked == 0 ? std::move(lock) : FileDescriptor();
}

// The bytes of `root` with `key` set to a copy of `value`, or removed when `value` is null.
Data changed(plist_t root, std::string_view key, plist_t value) {
  const std::string keyText(key);
  if (value) {
    plist_dict_set_item(root, keyText.c_str(), plist_copy(value));
  } else {
    plist_dict_remove_item(root, keyText.c_str());
  }
  return detail::binaryPlist(root);
}

// Whether `bytes`, written from `root` with `key` set to `value` (or removed when `value` is null), read back
// with as many entries and with that change. libplist cuts a key that is not UTF-8 short at its first bad
// byte when it writes, which can turn it into another key or into the one being set.
bool readsBackAs(const Data& bytes, plist_t root, std::string_view key, plist_t value) {
  const Plist reread = rootOf(bytes);
  if (!reread || plist_dict_get_size(reread.get()) != plist_dict_get_size(root)) return false;
  const plist_t found = plist_dict_get_item(reread.get(), std::string(key).c_str());
  if (!value) return found == nullptr;
  const plist_type kind = plist_get_node_type(value);
  if (plist_get_node_type(found) != kind) return false;
  return kind == PLIST_DICT || kind == PLIST_ARRAY || plist_compare_node_value(found, value);
}

// Read-modify-write of the whole file: sets `key` to `value`, or removes it when `value` is empty.
Result<void> update(std::mutex& mutex, std::string_view key, Plist value) {
  std::lock_guard guard(mutex);
  const std::string folder = ZuFileManager::applicationDataDirectory();
  const std::string path = ZuUserDefaults::filePath();
  std::error_code created;
  std::filesystem::create_directories(folder, created);
  if (created) return Error::posix(created.value());
  const FileDescriptor lock = lockStore(path);  // released when closed
  if (!lock) return Error::posix(errno);

  const auto stored = ZuFileManager::contents(path);
  Plist root = stored ? rootOf(*stored) : nullptr;
  Data bytes = root ? changed(root.get(), key, value.get()) : Data{};
  // A store that does not read, or that would not read back as it was once rewritten, is kept aside and
  // started afresh.
  if (!root || !readsBackAs(bytes, root.get(), key, value.get())) {
    if (stored && !stored->empty()) {
      if (auto error = keepAside(path, *stored)) return *error;
    }
    root.reset(plist_new_dict());
    bytes = changed(root.get(), key, value.get());
  }
  // The temporary file's name is fixed: writers hold the lock, so a crashed writer leaves at most one stale
  // temporary file, which the next write replaces.
  if (auto error = detail::replaceFileDurably(path, path + ".tmp", bytes)) return *error;
  return {};
}

}  // namespace

ZuUserDefaults& ZuUserDefaults::standard() {
  static ZuUserDefaults defaults;
  return defaults;
}

std::string ZuUserDefaults::filePath() {
  return ZuFileManager::applicationDataDirectory() + "/" + std::string(kFileName);
}

std::int64_t ZuUserDefaults::integer(std::string_view forKey) const {
  const auto [root, node] = readValue(forKey);
  if (PLIST_IS_UINT(node)) {
    std::uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return static_cast<std::int64_t>(value);  // binary plists store integers as signed 64-bit
  }
  if (PLIST_IS_REAL(node)) {
    double value = 0;
    plist_get_real_val(node, &value);
    return std::isfinite(value) && std::fabs(value) < 0x1p63 ? static_cast<std::int64_t>(value) : 0;
  }
  if (PLIST_IS_BOOLEAN(node)) return plist_bool_val_is_true(node);
  return 0;
}

std::optional<Data> ZuUserDefaults::data(std::string_view forKey) const {
  const auto [root, node] = readValue(forKey);
  if (!PLIST_IS_DATA(node)) return std::nullopt;
  std::uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  return Data(bytes, bytes + length);
}

Result<void> ZuUserDefaults::set(std::int64_t value, std::string_view forKey) {
  return update(writeMutex_, forKey, Plist(plist_new_uint(static_cast<std::uint64_t>(value))));
}

Result<void> ZuUserDefaults::set(const Data& value, std::string_view forKey) {
  return update(writeMutex_, forKey,
                Plist(plist_new_data(reinterpret_cast<const char*>(value.data()), value.size())));
}

Result<void> ZuUserDefaults::removeObject(std::string_view forKey) {
  return update(writeMutex_, forKey, nullptr);
}

}  // namespace zu
