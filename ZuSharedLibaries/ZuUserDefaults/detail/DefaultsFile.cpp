#include "ZuUserDefaults/detail/DefaultsFile.hpp"

#include <cstdlib>
#include <map>

#include "ZuFoundation/internal/Plist.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace zu::detail {
namespace {

bool isScalar(bplist::Kind kind) {
  switch (kind) {
    case bplist::Kind::Boolean:
    case bplist::Kind::Integer:
    case bplist::Kind::Real:
    case bplist::Kind::Date:
    case bplist::Kind::Data:
    case bplist::Kind::String:
      return true;
    default:
      return false;
  }
}

bplist::Object objectIn(const Data& encoded) {
  return bplist::objectAt(encoded.data(), encoded.data() + encoded.size(), 1);
}

// `text` as it reads once written: invalid UTF-8 sequences become U+FFFD.
std::string asWritten(std::string_view text) {
  Data encoded;
  bplist::appendString(encoded, text);
  std::string buffer;
  return std::string(bplist::text(objectIn(encoded), buffer));
}

// A value of a libplist tree as one encoded object; nothing for what a defaults file does not hold
// (containers, UIDs) and for text that is not UTF-8, which could not be written as it is.
std::optional<Data> encoded(plist_t node) {
  Data out;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN:
      out.push_back(plist_bool_val_is_true(node) ? bplist::kTrue : bplist::kFalse);
      break;
    case PLIST_UINT: {
      std::uint64_t value = 0;
      plist_get_uint_val(node, &value);
      bplist::appendInteger(out, static_cast<std::int64_t>(value));  // libplist keeps a negative one this way
      break;
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      bplist::appendDouble(out, bplist::kReal, value);
      break;
    }
    case PLIST_DATE: {
      std::int32_t seconds = 0;
      std::int32_t micros = 0;
      plist_get_date_val(node, &seconds, &micros);
      bplist::appendDouble(out, bplist::kDate, seconds + micros / 1e6);
      break;
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const std::string_view text(plist_get_string_ptr(node, &length), length);
      if (asWritten(text) != text) return std::nullopt;
      bplist::appendString(out, text);
      break;
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      bplist::appendMarker(out, bplist::kData, length);
      out.insert(out.end(), bytes, bytes + length);
      break;
    }
    default:
      return std::nullopt;
  }
  return out;
}

// Writes a file's pieces in order: small ones gathered in a buffer, large ones from where they lie.
class FileSink {
 public:
  explicit FileSink(int fd) : fd_(fd) {}

  /// How many bytes the file holds so far.
  std::uint64_t size() const { return size_; }

  void write(std::span<const std::uint8_t> bytes) {
    size_ += bytes.size();
    if (bytes.size() < kDirectWrite) {
      buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
      if (buffer_.size() >= kDirectWrite) flush();
      return;
    }
    flush();
    if (written_) written_ = writeAll(fd_, bytes.data(), bytes.size());
  }

  Result<void> finish() {
    flush();
    return written_;
  }

 private:
  static constexpr std::size_t kDirectWrite = std::size_t{64} * 1024;

  void flush() {
    if (written_ && !buffer_.empty()) written_ = writeAll(fd_, buffer_.data(), buffer_.size());
    buffer_.clear();
  }

  int fd_;
  Data buffer_;
  std::uint64_t size_ = 0;
  Result<void> written_;  // failed from the first write that failed
};

// The bytes libplist gives an offset or a reference: 1, 2, 3, 4 or 8.
unsigned libplistWidthFor(std::uint64_t value) {
  return value < 1u << 16 ? bplist::widthFor(value) : value < 1u << 24 ? 3 : value <= 0xFFFFFFFF ? 4 : 8;
}

// Where each entry's key and value stand among the objects, the dictionary being the first.
struct Layout {
  std::vector<std::uint64_t> keys;
  std::vector<std::uint64_t> values;
  std::vector<bool> writesValue;  // false where the value is an earlier one's
  std::uint64_t objectCount = 1;
};

Layout layoutOf(const std::vector<EncodedEntry>& entries) {
  Layout layout;
  std::map<std::string, std::uint64_t, std::less<>> earlier;  // the bytes of values other than data
  for (const EncodedEntry& entry : entries) {
    layout.keys.push_back(layout.objectCount++);
    const std::uint8_t marker = entry.head.empty() ? entry.body.front() : entry.head.front();
    if (marker >> 4 != bplist::kData >> 4) {
      std::string bytes(entry.head.begin(), entry.head.end());
      bytes.append(entry.body.begin(), entry.body.end());
      const auto [known, added] = earlier.try_emplace(std::move(bytes), layout.objectCount);
      if (!added) {
        layout.values.push_back(known->second);
        layout.writesValue.push_back(false);
        continue;
      }
    }
    layout.values.push_back(layout.objectCount++);
    layout.writesValue.push_back(true);
  }
  return layout;
}

}  // namespace

std::optional<DefaultsFile> DefaultsFile::read(std::span<const std::uint8_t> bytes) {
  if (auto binary = readBinary(bytes)) return binary;
  return readOtherFormat(bytes);
}

std::optional<DefaultsFile> DefaultsFile::readBinary(std::span<const std::uint8_t> bytes) {
  const auto trailer = bplist::readTrailer(bytes);
  if (!trailer) return std::nullopt;
  const bplist::Object root = bplist::objectOf(bytes, *trailer, trailer->root);
  if (root.kind != bplist::Kind::Dictionary) return std::nullopt;
  const auto member = [&](std::uint64_t index) {
    const unsigned width = trailer->refWidth;
    return bplist::objectOf(bytes, *trailer, bplist::readBigEndian(root.payload + index * width, width));
  };
  DefaultsFile file;
  file.entries_.reserve(root.count);  // no more than the bytes hold, and the keys seen stay in place
  Keys seen;
  std::string buffer;
  for (std::uint64_t i = 0; i < root.count; ++i) {
    const bplist::Object key = member(i);
    if (key.kind != bplist::Kind::String) {
      file.whole_ = false;
      continue;
    }
    file.add(std::string(bplist::text(key, buffer)), bplist::isExactText(key), member(root.count + i), seen);
  }
  return file;
}

std::optional<DefaultsFile> DefaultsFile::readOtherFormat(std::span<const std::uint8_t> bytes) {
  const Plist root = parsePlist(bytes.data(), bytes.size());
  if (!PLIST_IS_DICT(root.get())) return std::nullopt;
  DefaultsFile file;
  const std::uint32_t count = plist_dict_get_size(root.get());
  file.entries_.reserve(count);
  file.converted_.reserve(count);
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(root.get(), &iterator);
  const UniqueHandle<void, std::free> ownedIterator(iterator);
  Keys seen;
  for (std::uint32_t i = 0; i < count; ++i) {
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(root.get(), iterator, &key, &value);
    const UniqueHandle<char, std::free> ownedKey(key);
    auto stored = key ? encoded(value) : std::nullopt;
    if (!stored) {
      file.whole_ = false;
      continue;
    }
    std::string text = asWritten(key);
    const bool exact = text == key;
    file.add(std::move(text), exact, objectIn(file.converted_.emplace_back(std::move(*stored))), seen);
  }
  return file;
}

void DefaultsFile::add(std::string key, bool exactKey, const bplist::Object& value, Keys& seen) {
  if (!isScalar(value.kind) || seen.contains(key)) {
    whole_ = false;
    return;
  }
  whole_ = whole_ && exactKey;
  seen.insert(entries_.emplace_back(Entry{std::move(key), value}).key);
}

const bplist::Object* DefaultsFile::find(std::string_view key) const {
  for (const Entry& entry : entries_) {
    if (entry.key == key) return &entry.value;
  }
  return nullptr;
}

Result<void> writeDefaultsFile(int fd, const std::vector<EncodedEntry>& entries) {
  const Layout layout = layoutOf(entries);
  const unsigned refWidth = libplistWidthFor(layout.objectCount);
  FileSink sink(fd);
  Data scratch(bplist::kMagic.begin(), bplist::kMagic.end());
  std::vector<std::uint64_t> offsets{scratch.size()};
  bplist::appendMarker(scratch, bplist::kDictionary, entries.size());
  for (const std::uint64_t ref : layout.keys) bplist::appendBigEndian(scratch, ref, refWidth);
  for (const std::uint64_t ref : layout.values) bplist::appendBigEndian(scratch, ref, refWidth);
  sink.write(scratch);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    offsets.push_back(sink.size());
    scratch.clear();
    bplist::appendString(scratch, entries[i].key);
    sink.write(scratch);
    if (!layout.writesValue[i]) continue;
    offsets.push_back(sink.size());
    sink.write(entries[i].head);
    sink.write(entries[i].body);
  }
  scratch.clear();
  bplist::appendTable(scratch, offsets,
                      {libplistWidthFor(sink.size()), refWidth, layout.objectCount, 0, sink.size()});
  sink.write(scratch);
  return sink.finish();
}

}  // namespace zu::detail
