#include "KivSDK/Model/detail/PersistedForm.hpp"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ZuUserDefaults/detail/Plist.hpp"

namespace kiv::detail {
namespace {

using zu::detail::Plist;

constexpr long kReadCorruptCode = 4864;
constexpr long kInvalidValueCode = 4866;
// The platform's property-list coders write nil as this text.
constexpr const char* kNullText = "$null";
constexpr std::int64_t kMicrosPerSecond = 1'000'000;

// Raised and caught inside this file only: a coding failure unwinds the record walk to the entry points.
struct CodingFailure {
  long code;
  std::string message;
};

[[noreturn]] void fail(long code, std::string message) { throw CodingFailure{code, std::move(message)}; }
[[noreturn]] void mismatch(std::string_view key, std::string_view expected) {
  fail(kReadCorruptCode, "Expected " + std::string(expected) + " for the key \"" + std::string(key) + "\"");
}

zu::Error codingError(const CodingFailure& failure) {
  return zu::Error(std::string(zu::Error::cocoaDomain), failure.code,
                   {{std::string(zu::Error::debugDescriptionKey), failure.message}});
}

// ---- Dates. libplist takes and gives dates as whole seconds (32-bit) plus microseconds.

Plist dateNode(std::int64_t micros) {
  std::int64_t seconds = micros / kMicrosPerSecond;
  if (micros % kMicrosPerSecond < 0) --seconds;
  return Plist(plist_new_date(static_cast<std::int32_t>(seconds),
                              static_cast<std::int32_t>(micros - seconds * kMicrosPerSecond)));
}

Plist encodeDate(zu::Date date) {
  const double micros = std::round(date.timeIntervalSinceReferenceDate() * 1e6);
  if (!(std::fabs(micros) < 0x1p31 * 1e6)) fail(kInvalidValueCode, "Date out of the storable range");
  return dateNode(static_cast<std::int64_t>(micros));
}

// libplist holds a date as one double but hands it out truncated toward zero, as seconds plus microseconds of
// the magnitude: the sign is lost between -1 and 0, and a rounding step can drop one microsecond. The nearby
// candidates are re-made as nodes and compared with the stored one, so a date written here reads back
// exactly; a finer date written elsewhere is truncated to the microsecond.
zu::Date decodeDate(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t micros = 0;
  plist_get_date_val(node, &seconds, &micros);
  const std::int64_t magnitude = std::abs(std::int64_t{seconds}) * kMicrosPerSecond + micros;
  const std::int64_t sign = seconds < 0 ? -1 : 1;
  for (const std::int64_t candidate : {magnitude, magnitude + 1}) {
    for (const std::int64_t direction : {sign, -sign}) {
      if (plist_compare_node_value(node, dateNode(direction * candidate).get())) {
        return zu::Date(static_cast<double>(direction * candidate) / 1e6);
      }
    }
  }
  return zu::Date(static_cast<double>(sign * magnitude) / 1e6);
}

Plist encodeURL(const zu::URL& url) {
  Plist node(plist_new_dict());
  plist_dict_set_item(node.get(), "relative", plist_new_string(url.absoluteString().c_str()));
  return node;
}

// ---- AnyCodable values, with the same kind rules as their JSON form.

class PlistWriter final : public zu::SingleValueEncoder {
 public:
  Plist take() { return std::move(root_); }
  const std::optional<std::string>& failure() const { return failure_; }

  void encodeNil() override { put(plist_new_string(kNullText)); }
  void encode(bool value) override { put(plist_new_bool(value)); }
  void encode(std::int64_t value) override { put(plist_new_uint(static_cast<std::uint64_t>(value))); }
  void encode(std::uint64_t value) override {
    // libplist writes every integer in the signed 8-byte form; a larger one would read back negative.
    if (value > std::uint64_t{INT64_MAX}) failure_ = "Unsigned integer " + std::to_string(value) + " cannot be stored";
    put(plist_new_uint(value));
  }
  void encode(float value) override { encode(double{value}); }
  void encode(double value) override { put(plist_new_real(value)); }
  void encode(const std::string& value) override { put(plist_new_string(value.c_str())); }
  void encode(zu::Date value) override {
    try {
      put(encodeDate(value).release());
    } catch (const CodingFailure& failure) {
      failure_ = failure.message;  // never unwind through the caller's encoding walk
      put(plist_new_string(kNullText));
    }
  }
  void encode(const zu::URL& value) override { put(encodeURL(value).release()); }
  void beginArray() override { open(plist_new_array()); }
  void beginDictionary() override { open(plist_new_dict()); }
  void encodeKey(const std::string& key) override { key_ = key; }
  void endContainer() override { open_.pop_back(); }

 private:
  void put(plist_t node) {
    if (open_.empty()) {
      root_.reset(node);
    } else if (PLIST_IS_ARRAY(open_.back())) {
      plist_array_append_item(open_.back(), node);
    } else {
      plist_dict_set_item(open_.back(), key_.c_str(), node);
    }
  }
  void open(plist_t container) {
    put(container);
    open_.push_back(container);
  }

  Plist root_;
  std::vector<plist_t> open_;  // borrowed from the tree `root_` owns
  std::string key_;
  std::optional<std::string> failure_;
};

std::optional<std::string> stringValue(plist_t node) {
  if (!PLIST_IS_STRING(node)) return std::nullopt;
  std::uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  return std::string(text, length);
}

bool isNull(plist_t node) { return PLIST_IS_STRING(node) && stringValue(node) == kNullText; }

std::optional<std::int64_t> integerValue(plist_t node) {
  if (PLIST_IS_UINT(node)) {
    std::uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return static_cast<std::int64_t>(value);  // stored as a signed 64-bit integer
  }
  if (!PLIST_IS_REAL(node)) return std::nullopt;
  double value = 0;
  plist_get_real_val(node, &value);
  if (std::trunc(value) != value || value < -0x1p63 || value >= 0x1p63) return std::nullopt;
  return static_cast<std::int64_t>(value);
}

class PlistReader final : public zu::SingleValueDecoder {
 public:
  PlistReader(plist_t node, const PlistReader* parent, std::string key)
      : node_(node), parent_(parent), key_(std::move(key)) {}

  std::vector<std::string> codingPath() const override {
    std::vector<std::string> path = parent_ ? parent_->codingPath() : std::vector<std::string>{};
    path.push_back(key_);
    return path;
  }
  bool decodeNil() const override { return isNull(node_); }
  std::optional<bool> decodeBool() const override {
    if (!PLIST_IS_BOOLEAN(node_)) return std::nullopt;
    return plist_bool_val_is_true(node_) != 0;
  }
  std::optional<std::int64_t> decodeInt() const override { return integerValue(node_); }
  std::optional<std::uint64_t> decodeUInt() const override {
    const auto value = realValue();
    if (!value || std::trunc(*value) != *value || *value < 0 || *value >= 0x1p64) return std::nullopt;
    return static_cast<std::uint64_t>(*value);
  }
  std::optional<double> decodeDouble() const override {
    if (const auto integer = integerValue(node_); integer && PLIST_IS_UINT(node_)) return static_cast<double>(*integer);
    // A date reads as its seconds since the reference date, as a date written to JSON does.
    if (PLIST_IS_DATE(node_)) return decodeDate(node_).timeIntervalSinceReferenceDate();
    return realValue();
  }
  std::optional<std::string> decodeString() const override { return stringValue(node_); }
  std::optional<Elements> decodeArray() const override {
    if (!PLIST_IS_ARRAY(node_)) return std::nullopt;
    Elements elements;
    const std::uint32_t size = plist_array_get_size(node_);
    elements.reserve(size);
    for (std::uint32_t i = 0; i < size; ++i) {
      elements.push_back(std::make_unique<PlistReader>(plist_array_get_item(node_, i), this, "Index " + std::to_string(i)));
    }
    return elements;
  }
  std::optional<Members> decodeDictionary() const override {
    if (!PLIST_IS_DICT(node_)) return std::nullopt;
    Members members;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node_, &iterator);
    while (true) {
      char* key = nullptr;
      plist_t value = nullptr;
      plist_dict_next_item(node_, iterator, &key, &value);
      if (!key) break;
      members.emplace_back(key, std::make_unique<PlistReader>(value, this, key));
      std::free(key);
    }
    std::free(iterator);
    return members;
  }

 private:
  std::optional<double> realValue() const {
    if (!PLIST_IS_REAL(node_)) return std::nullopt;
    double value = 0;
    plist_get_real_val(node_, &value);
    return value;
  }

  plist_t node_;
  const PlistReader* parent_;
  std::string key_;
};

// ---- Encoding the records.

Plist node(const std::string& text) { return Plist(plist_new_string(text.c_str())); }
Plist node(zu::Date date) { return encodeDate(date); }
Plist node(const zu::URL& url) { return encodeURL(url); }
Plist node(const zu::UUID& id) { return node(id.uuidString()); }
Plist node(std::int64_t integer) { return Plist(plist_new_uint(static_cast<std::uint64_t>(integer))); }

Plist node(const zu::FlatMetadata& metadata) {
  Plist pairs(plist_new_array());
  for (const auto& [path, value] : metadata) {
    Plist key(plist_new_array());
    for (const auto& component : path) plist_array_append_item(key.get(), plist_new_string(component.c_str()));
    plist_array_append_item(pairs.get(), key.release());
    PlistWriter writer;
    const auto encoded = value.encode(writer);
    if (!encoded) fail(kInvalidValueCode, "Metadata value cannot be encoded");
    if (writer.failure()) fail(kInvalidValueCode, *writer.failure());
    plist_array_append_item(pairs.get(), writer.take().release());
  }
  return pairs;
}

void set(plist_t dict, const char* key, Plist value) { plist_dict_set_item(dict, key, value.release()); }

template <class T>
void setIfPresent(plist_t dict, const char* key, const std::optional<T>& value) {
  if (value) set(dict, key, node(*value));
}

Plist node(const KivFile& file) {
  Plist dict(plist_new_dict());
  set(dict.get(), "name", node(file.name));
  setIfPresent(dict.get(), "description", file.description);
  set(dict.get(), "ext", node(file.ext));
  set(dict.get(), "fileType", node(std::int64_t{zu::rawValue(file.fileType)}));
  set(dict.get(), "dateTaken", node(file.dateTaken));
  setIfPresent(dict.get(), "slug", file.slug);
  setIfPresent(dict.get(), "_metadata", file._metadata);
  setIfPresent(dict.get(), "hash", file.hash);
  setIfPresent(dict.get(), "remoteUrl", file.remoteUrl);
  setIfPresent(dict.get(), "_lastFileUploadAttemptDate", file._lastFileUploadAttemptDate);
  return dict;
}

Plist node(const std::vector<KivFile>& files) {
  Plist array(plist_new_array());
  for (const auto& file : files) plist_array_append_item(array.get(), node(file).release());
  return array;
}

Plist node(const KivReport& report) {
  Plist dict(plist_new_dict());
  setIfPresent(dict.get(), "id", report.id);
  set(dict.get(), "name", node(report.name));
  set(dict.get(), "created", node(report.created));
  setIfPresent(dict.get(), "note", report.note);
  set(dict.get(), "files", node(report.files));
  setIfPresent(dict.get(), "slug", report.slug);
  setIfPresent(dict.get(), "certificationRequestedDate", report.certificationRequestedDate);
  setIfPresent(dict.get(), "_metadata", report._metadata);
  setIfPresent(dict.get(), "hash", report.hash);
  setIfPresent(dict.get(), "email", report.email);
  set(dict.get(), "_proofStatusInt", node(std::int64_t{report._proofStatusInt}));
  return dict;
}

// ---- Decoding the records. Each reader takes the node under `key` and fails on a value of another type.

std::string readString(plist_t node, std::string_view key) {
  auto text = stringValue(node);
  if (!text) mismatch(key, "a text");
  return std::move(*text);
}

zu::Date readDate(plist_t node, std::string_view key) {
  if (!PLIST_IS_DATE(node)) mismatch(key, "a date");
  return decodeDate(node);
}

std::int64_t readInteger(plist_t node, std::string_view key) {
  const auto integer = integerValue(node);
  if (!integer) mismatch(key, "an integer");
  return *integer;
}

zu::UUID readUUID(plist_t node, std::string_view key) {
  const auto id = zu::UUID::fromString(readString(node, key));
  if (!id) mismatch(key, "a UUID text");
  return *id;
}

zu::URL readURL(plist_t node, std::string_view key) {
  if (!PLIST_IS_DICT(node)) mismatch(key, "a URL dictionary");
  const plist_t relative = plist_dict_get_item(node, "relative");
  auto url = relative ? zu::URL::fromString(readString(relative, key)) : std::nullopt;
  // A relative reference would need resolving against "base", which URLs of this SDK never carry.
  if (!url || (plist_dict_get_item(node, "base") && url->scheme().empty())) mismatch(key, "an absolute URL");
  return std::move(*url);
}

zu::FlatMetadata readMetadata(plist_t node, std::string_view key) {
  if (!PLIST_IS_ARRAY(node) || plist_array_get_size(node) % 2 != 0) mismatch(key, "key-value pairs");
  zu::FlatMetadata metadata;
  for (std::uint32_t i = 0; i < plist_array_get_size(node); i += 2) {
    const plist_t pathNode = plist_array_get_item(node, i);
    if (!PLIST_IS_ARRAY(pathNode)) mismatch(key, "a key path");
    zu::KeyPath path;
    for (std::uint32_t j = 0; j < plist_array_get_size(pathNode); ++j) {
      path.push_back(readString(plist_array_get_item(pathNode, j), key));
    }
    auto value = zu::AnyCodable::decode(PlistReader(plist_array_get_item(node, i + 1), nullptr, std::string(key)));
    if (!value) mismatch(key, "metadata values");
    metadata.insert_or_assign(std::move(path), std::move(*value));
  }
  return metadata;
}

template <class Read>
auto required(plist_t dict, const char* key, Read read) {
  const plist_t node = plist_dict_get_item(dict, key);
  if (!node) fail(kReadCorruptCode, "No value for the key \"" + std::string(key) + "\"");
  return read(node, key);
}

template <class Read>
auto optional(plist_t dict, const char* key, Read read) -> std::optional<decltype(read(dict, key))> {
  const plist_t node = plist_dict_get_item(dict, key);
  if (!node || isNull(node)) return std::nullopt;
  return read(node, key);
}

KivFile readFile(plist_t node, std::string_view key) {
  if (!PLIST_IS_DICT(node)) mismatch(key, "a file dictionary");
  KivFile file(required(node, "name", readString), required(node, "ext", readString),
               required(node, "dateTaken", readDate));
  const auto fileType = required(node, "fileType", readInteger);
  if (fileType < INT_MIN || fileType > INT_MAX || !zu::fromRawValue<KivFile::FileType>(static_cast<int>(fileType))) {
    fail(kReadCorruptCode, "Cannot initialize FileType from invalid Int value " + std::to_string(fileType));
  }
  file.fileType = static_cast<KivFile::FileType>(fileType);
  file.description = optional(node, "description", readString);
  file.slug = optional(node, "slug", readString);
  file._metadata = optional(node, "_metadata", readMetadata);
  file.hash = optional(node, "hash", readString);
  file.remoteUrl = optional(node, "remoteUrl", readURL);
  file._lastFileUploadAttemptDate = optional(node, "_lastFileUploadAttemptDate", readDate);
  return file;
}

std::vector<KivFile> readFiles(plist_t node, std::string_view key) {
  if (!PLIST_IS_ARRAY(node)) mismatch(key, "an array of files");
  std::vector<KivFile> files;
  files.reserve(plist_array_get_size(node));
  for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i) files.push_back(readFile(plist_array_get_item(node, i), key));
  return files;
}

KivReport readReport(plist_t node) {
  if (!PLIST_IS_DICT(node)) fail(kReadCorruptCode, "Expected a report dictionary");
  KivReport report(required(node, "name", readString));
  report.id = optional(node, "id", readUUID);
  report.created = required(node, "created", readDate);
  report.note = optional(node, "note", readString);
  report.files = required(node, "files", readFiles);
  report.slug = optional(node, "slug", readString);
  report.certificationRequestedDate = optional(node, "certificationRequestedDate", readDate);
  report._metadata = optional(node, "_metadata", readMetadata);
  report.hash = optional(node, "hash", readString);
  report.email = optional(node, "email", readString);
  const auto status = required(node, "_proofStatusInt", readInteger);
  if (status < INT_MIN || status > INT_MAX) mismatch("_proofStatusInt", "an Int");
  report._proofStatusInt = static_cast<int>(status);
  return report;
}

}  // namespace

zu::Result<zu::Data> encodeReports(const std::vector<KivReport>& reports) {
  try {
    Plist array(plist_new_array());
    for (const auto& report : reports) plist_array_append_item(array.get(), node(report).release());
    return zu::detail::binaryPlist(array.get());
  } catch (const CodingFailure& failure) {
    return codingError(failure);
  }
}

zu::Result<std::vector<KivReport>> decodeReports(const zu::Data& bytes) {
  const Plist root = zu::detail::parsePlist(bytes.data(), bytes.size());
  if (!root) return codingError({kReadCorruptCode, "The given data was not a valid property list."});
  if (!PLIST_IS_ARRAY(root.get())) return codingError({kReadCorruptCode, "Expected an array of reports"});
  std::vector<KivReport> reports;
  reports.reserve(plist_array_get_size(root.get()));
  for (std::uint32_t i = 0; i < plist_array_get_size(root.get()); ++i) {
    try {
      reports.push_back(readReport(plist_array_get_item(root.get(), i)));
    } catch (const CodingFailure& failure) {
      return codingError({failure.code, "Report " + std::to_string(i) + ": " + failure.message});
    }
  }
  return reports;
}

}  // namespace kiv::detail
