#include "ZuUserDefaults/ZuUserDefaults.hpp"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <functional>
#include <typeinfo>

#include "ZuDate/ZuDate.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/detail/Posix.hpp"
#include "ZuLogger/ZuLogger.hpp"
#include "ZuUserDefaults/detail/DefaultsFile.hpp"

namespace zu {
namespace {

namespace bplist = detail::bplist;
using detail::DefaultsFile;
using detail::EncodedEntry;
using detail::FileDescriptor;

constexpr std::string_view kFileName = "UserDefaults.plist";

// Writes `bytes` to a new file at `path`, never over an existing one (EEXIST then).
std::optional<Error> writeNewFileDurably(const std::string& path, const Data& bytes) {
  const auto file = FileDescriptor::open(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (!file) return Error::posix(errno);
  if (auto error = detail::writeAll(file.get(), bytes.data(), bytes.size())) return error;
  if (::fsync(file.get()) != 0) return Error::posix(errno);
  return std::nullopt;
}

// A store that cannot be read, or not whole (`problem` says which), is about to be replaced: its bytes are
// first copied beside it, to "<store>.corrupt-<UTC time>" (with "-2", "-3", ... when that name is taken, so
// no earlier copy is ever overwritten), and a warning says where. The replacement's folder flush makes the
// copy durable too.
std::optional<Error> keepAside(const std::string& path, const Data& bytes, std::string_view problem) {
  constexpr int kAttempts = 1000;
  const std::string stem = path + ".corrupt-" + stringWithLocalDateTimeForFileNames(Date::now());
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    const std::string aside = attempt == 1 ? stem : stem + "-" + std::to_string(attempt);
    auto error = writeNewFileDurably(aside, bytes);
    if (!error) {
      std::string message(problem);
      message.append(path).append("; its bytes are kept in ").append(aside);
      ZuLogger::log(message, &typeid(ZuUserDefaults), ZuLogger::LogLevel::warning);
      return std::nullopt;
    }
    if (error->code() != EEXIST) return error;
  }
  return Error::posix(EEXIST);
}

FileDescriptor lockStore(const std::string& path) {
  auto lock = FileDescriptor::open(path + ".lock", O_RDWR | O_CREAT, 0600);
  if (!lock) return lock;
  const int locked = detail::retryingInterrupted([&] { return ::flock(lock.get(), LOCK_EX); });
  return locked == 0 ? std::move(lock) : FileDescriptor();
}

// A value to store: one encoded object, `head` then `body`, which views the caller's bytes or `made`.
struct NewValue {
  Data head;
  std::span<const std::uint8_t> body;
  Data made;  // the body, when it was made for the change
};

using MakeValue = std::function<std::optional<NewValue>()>;

NewValue dataValue(std::span<const std::uint8_t> bytes) {
  NewValue value{{}, bytes, {}};
  bplist::appendMarker(value.head, bplist::kData, bytes.size());
  return value;
}

// An entry of the stored file, copied out of it so that the file's bytes can go before the new value is made.
struct StoredEntry {
  std::string key;
  Data value;  // empty for the key being changed
};

// The stored file's entries, read under the lock; a file that does not read, or not whole, is kept aside
// first.
Result<std::vector<StoredEntry>> storedEntries(const std::string& path, std::string_view changedKey) {
  const auto bytes = ZuFileManager::contents(path);
  const auto stored = bytes ? DefaultsFile::read(*bytes) : std::nullopt;
  if (bytes && !bytes->empty() && (!stored || !stored->whole())) {
    const auto problem = stored ? "Could not carry over all of " : "Could not read ";
    if (auto error = keepAside(path, *bytes, problem)) return *error;
  }
  std::vector<StoredEntry> entries;
  for (const auto& entry : stored ? stored->entries() : std::span<const DefaultsFile::Entry>()) {
    const bool changed = entry.key == changedKey;
    entries.push_back({entry.key, changed ? Data{} : Data(entry.value.begin, entry.value.end)});
  }
  return entries;
}

// The entries to write: the stored ones with `key` set to `value` (in its place, when it was there), or
// without `key` when there is no value.
std::vector<EncodedEntry> changedEntries(const std::vector<StoredEntry>& stored, std::string_view key,
                                         const std::optional<NewValue>& value) {
  std::vector<EncodedEntry> entries;
  bool replaced = false;
  for (const StoredEntry& entry : stored) {
    if (entry.key != key) {
      entries.push_back({entry.key, {}, entry.value});
    } else if (value) {
      entries.push_back({entry.key, value->head, value->body});
      replaced = true;
    }
  }
  if (value && !replaced) entries.push_back({key, value->head, value->body});
  return entries;
}

// Read-modify-write of the whole file: sets `key` to the value `makeValue` answers, or removes it when there
// is none. The value is made once the stored file's bytes are gone.
Result<void> update(std::mutex& mutex, std::string_view key, const MakeValue& makeValue) {
  std::lock_guard guard(mutex);
  const std::string folder = ZuFileManager::applicationDataDirectory();
  const std::string path = ZuUserDefaults::filePath();
  std::error_code created;
  std::filesystem::create_directories(folder, created);
  if (created) return Error::posix(created.value());
  const FileDescriptor lock = lockStore(path);  // released when closed
  if (!lock) return Error::posix(errno);

  const auto stored = storedEntries(path, key);
  if (!stored) return stored.error();
  const auto value = makeValue();
  const auto entries = changedEntries(*stored, key, value);
  // The temporary file's name is fixed: writers hold the lock, so a crashed writer leaves at most one stale
  // temporary file, which the next write replaces.
  const auto write = [&](int fd) { return detail::writeDefaultsFile(fd, entries); };
  if (auto error = detail::replaceFileDurably(path, path + ".tmp", write)) return *error;
  return {};
}

}  // namespace

struct ZuUserDefaults::Snapshot::Contents {
  std::optional<Data> bytes;
  std::optional<DefaultsFile> file;  // views `bytes`

  const bplist::Object* find(std::string_view key) const { return file ? file->find(key) : nullptr; }
};

ZuUserDefaults::Snapshot::Snapshot(std::unique_ptr<const Contents> contents)
    : contents_(std::move(contents)) {}
ZuUserDefaults::Snapshot::Snapshot(Snapshot&&) noexcept = default;
ZuUserDefaults::Snapshot& ZuUserDefaults::Snapshot::operator=(Snapshot&&) noexcept = default;
ZuUserDefaults::Snapshot::~Snapshot() = default;

std::int64_t ZuUserDefaults::Snapshot::integer(std::string_view forKey) const {
  const bplist::Object* value = contents_->find(forKey);
  if (!value) return 0;
  switch (value->kind) {
    case bplist::Kind::Integer:
      return bplist::integer(*value).value_or(0);
    case bplist::Kind::Real: {
      const double real = bplist::floatingPoint(*value);
      return std::isfinite(real) && std::fabs(real) < 0x1p63 ? static_cast<std::int64_t>(real) : 0;
    }
    case bplist::Kind::Boolean:
      return value->marker == bplist::kTrue;
    default:
      return 0;
  }
}

std::optional<std::span<const std::uint8_t>> ZuUserDefaults::Snapshot::data(std::string_view forKey) const& {
  const bplist::Object* value = contents_->find(forKey);
  if (!value || value->kind != bplist::Kind::Data) return std::nullopt;
  return std::span(value->payload, value->count);
}

ZuUserDefaults& ZuUserDefaults::standard() {
  static ZuUserDefaults defaults;
  return defaults;
}

std::string ZuUserDefaults::filePath() {
  return ZuFileManager::applicationDataDirectory() + "/" + std::string(kFileName);
}

ZuUserDefaults::Snapshot ZuUserDefaults::snapshot() const {
  auto contents = std::make_unique<Snapshot::Contents>();
  contents->bytes = ZuFileManager::contents(filePath());
  if (contents->bytes) contents->file = DefaultsFile::read(*contents->bytes);
  return Snapshot(std::move(contents));
}

std::int64_t ZuUserDefaults::integer(std::string_view forKey) const { return snapshot().integer(forKey); }

std::optional<Data> ZuUserDefaults::data(std::string_view forKey) const {
  const Snapshot stored = snapshot();
  const auto bytes = stored.data(forKey);
  return bytes ? std::optional<Data>(std::in_place, bytes->begin(), bytes->end()) : std::nullopt;
}

Result<void> ZuUserDefaults::set(std::int64_t value, std::string_view forKey) {
  return update(writeMutex_, forKey, [&] {
    NewValue integer;
    bplist::appendInteger(integer.head, value);
    return std::optional(std::move(integer));
  });
}

Result<void> ZuUserDefaults::set(const Data& value, std::string_view forKey) {
  return update(writeMutex_, forKey, [&] { return std::optional(dataValue(value)); });
}

Result<void> ZuUserDefaults::set(const std::function<std::optional<Data>()>& makeValue,
                                 std::string_view forKey) {
  return update(writeMutex_, forKey, [&]() -> std::optional<NewValue> {
    auto made = makeValue();
    if (!made) return std::nullopt;
    NewValue value = dataValue(*made);
    value.made = std::move(*made);  // the buffer `body` views moves with it
    return value;
  });
}

Result<void> ZuUserDefaults::removeObject(std::string_view forKey) {
  return update(writeMutex_, forKey, [] { return std::optional<NewValue>(); });
}

}  // namespace zu
