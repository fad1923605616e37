#include "KivSDK/Model/detail/PersistedForm.hpp"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "KivSDK/Model/detail/BinaryPlistWriter.hpp"
#include "ZuUserDefaults/detail/Plist.hpp"

namespace kiv::detail {
namespace {

using Ref = BinaryPlistWriter::Ref;
using zu::detail::Plist;

constexpr long kReadCorruptCode = 4864;
constexpr long kInvalidValueCode = 4866;
// The platform's property-list coders write nil as this text.
constexpr std::string_view kNullText = "$null";
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

// ---- Dates, kept to the microsecond. libplist makes and hands out dates as whole seconds (32-bit) plus
// microseconds; the writer stores the same double libplist makes from them, so that the reader can match it.

struct DateParts {
  std::int32_t seconds;
  std::int32_t micros;
};

DateParts dateParts(std::int64_t micros) {
  std::int64_t seconds = micros / kMicrosPerSecond;
  if (micros % kMicrosPerSecond < 0) --seconds;
  return {static_cast<std::int32_t>(seconds), static_cast<std::int32_t>(micros - seconds * kMicrosPerSecond)};
}

// Whether `node` holds exactly the date libplist makes of `micros` (a node reset through libplist's setter
// does not compare equal to a new one, so a new node is made each time).
bool holdsDate(plist_t node, std::int64_t micros) {
  const DateParts parts = dateParts(micros);
  const Plist candidate(plist_new_date(parts.seconds, parts.micros));
  return plist_compare_node_value(node, candidate.get()) != 0;
}

Ref writeDate(BinaryPlistWriter& out, zu::Date date) {
  const double micros = std::round(date.timeIntervalSinceReferenceDate() * 1e6);
  if (!(std::fabs(micros) < 0x1p31 * 1e6)) fail(kInvalidValueCode, "Date out of the storable range");
  const DateParts parts = dateParts(static_cast<std::int64_t>(micros));
  return out.date(static_cast<double>(parts.seconds) + static_cast<double>(parts.micros) / 1e6);
}

// libplist hands a stored date out truncated toward zero, as seconds plus microseconds of the magnitude: the
// sign is lost between -1 and 0, and a rounding step can drop one microsecond. The nearby candidates are
// made the way libplist makes dates and compared with the stored one, so a date written here reads back exactly; a finer
// date written elsewhere is truncated to the microsecond.
zu::Date decodeDate(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t micros = 0;
  plist_get_date_val(node, &seconds, &micros);
  const std::int64_t magnitude = std::abs(std::int64_t{seconds}) * kMicrosPerSecond + micros;
  const std::int64_t sign = seconds < 0 ? -1 : 1;
  for (const std::int64_t candidate : {magnitude, magnitude + 1}) {
    for (const std::int64_t direction : {sign, -sign}) {
      if (holdsDate(node, direction * candidate)) {
        return zu::Date(static_cast<double>(direction * candidate) / 1e6);
      }
    }
  }
  return zu::Date(static_cast<double>(sign * magnitude) / 1e6);
}

// The platform's encoding of a URL.
Ref writeURL(BinaryPlistWriter& out, const zu::URL& url) {
  return out.dictionary({out.string("relative")}, {out.string(url.absoluteString())});
}

// ---- AnyCodable values, with the same kind rules as their JSON form.

class ValueWriter final : public zu::SingleValueEncoder {
 public:
  explicit ValueWriter(BinaryPlistWriter& out) : out_(out) {}

  Ref root() const { return root_; }
  const std::optional<std::string>& failure() const { return failure_; }

  void encodeNil() override { put(out_.string(kNullText)); }
  void encode(bool value) override { put(out_.boolean(value)); }
  void encode(std::int64_t value) override { put(out_.integer(value)); }
  void encode(std::uint64_t value) override {
    // libplist reads every integer as signed 64-bit: a larger one would come back negative.
    if (value > std::uint64_t{INT64_MAX}) failure_ = "Unsigned integer " + std::to_string(value) + " cannot be stored";
    put(out_.integer(static_cast<std::int64_t>(value)));
  }
  void encode(float value) override { encode(double{value}); }
  void encode(double value) override { put(out_.real(value)); }
  void encode(const std::string& value) override { put(out_.string(value)); }
  void encode(zu::Date value) override {
    try {
      put(writeDate(out_, value));
    } catch (const CodingFailure& failure) {
      failure_ = failure.message;  // never unwind through the caller's encoding walk
      encodeNil();
    }
  }
  void encode(const zu::URL& value) override { put(writeURL(out_, value)); }
  void beginArray() override { open_.push_back({false, {}, {}}); }
  void beginDictionary() override { open_.push_back({true, {}, {}}); }
  void encodeKey(const std::string& key) override { open_.back().keys.push_back(out_.string(key)); }
  void endContainer() override {
    const Container container = std::move(open_.back());
    open_.pop_back();
    put(container.isDictionary ? out_.dictionary(container.keys, container.values) : out_.array(container.values));
  }

 private:
  struct Container {
    bool isDictionary;
    std::vector<Ref> keys;
    std::vector<Ref> values;
  };

  void put(Ref value) {
    if (open_.empty()) {
      root_ = value;
    } else {
      open_.back().values.push_back(value);
    }
  }

  BinaryPlistWriter& out_;
  std::vector<Container> open_;
  Ref root_ = 0;
  std::optional<std::string> failure_;
};

// The elements of an array node, in order. libplist's indexed access walks a parsed array from its start, so
// arrays are always read through its iterator.
std::vector<plist_t> elementsOf(plist_t array) {
  std::vector<plist_t> elements;
  elements.reserve(plist_array_get_size(array));
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(array, &iterator);
  for (plist_t element = nullptr; plist_array_next_item(array, iterator, &element), element;) {
    elements.push_back(element);
  }
  std::free(iterator);
  return elements;
}

// The text of a string node, borrowed from the node.
std::optional<std::string_view> stringValue(plist_t node) {
  if (!PLIST_IS_STRING(node)) return std::nullopt;
  std::uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  return std::string_view(text, length);
}

bool isNull(plist_t node) { return stringValue(node) == kNullText; }

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
    if (PLIST_IS_UINT(node_)) return static_cast<double>(*integerValue(node_));
    // A date reads as its seconds since the reference date, as a date written to JSON does.
    if (PLIST_IS_DATE(node_)) return decodeDate(node_).timeIntervalSinceReferenceDate();
    return realValue();
  }
  std::optional<std::string> decodeString() const override {
    const auto text = stringValue(node_);
    return text ? std::optional<std::string>(*text) : std::nullopt;
  }
  std::optional<Elements> decodeArray() const override {
    if (!PLIST_IS_ARRAY(node_)) return std::nullopt;
    Elements elements;
    const auto nodes = elementsOf(node_);
    elements.reserve(nodes.size());
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      elements.push_back(std::make_unique<PlistReader>(nodes[i], this, "Index " + std::to_string(i)));
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

Ref write(BinaryPlistWriter& out, const std::string& text) { return out.string(text); }
Ref write(BinaryPlistWriter& out, zu::Date date) { return writeDate(out, date); }
Ref write(BinaryPlistWriter& out, const zu::URL& url) { return writeURL(out, url); }
Ref write(BinaryPlistWriter& out, const zu::UUID& id) { return out.string(id.uuidString()); }
Ref write(BinaryPlistWriter& out, std::int64_t integer) { return out.integer(integer); }

Ref write(BinaryPlistWriter& out, const zu::FlatMetadata& metadata) {
  std::vector<Ref> pairs;
  pairs.reserve(metadata.size() * 2);
  for (const auto& [path, value] : metadata) {
    std::vector<Ref> keys;
    for (const auto& component : path) keys.push_back(out.string(component));
    pairs.push_back(out.array(keys));
    ValueWriter writer(out);
    if (!value.encode(writer)) fail(kInvalidValueCode, "Metadata value cannot be encoded");
    if (writer.failure()) fail(kInvalidValueCode, *writer.failure());
    pairs.push_back(writer.root());
  }
  return out.array(pairs);
}

Ref write(BinaryPlistWriter& out, const std::vector<KivFile>& files);  // a report's files, below

// One record's dictionary, key by key in the order given.
class DictionaryWriter {
 public:
  explicit DictionaryWriter(BinaryPlistWriter& out) : out_(out) {}

  template <class T>
  DictionaryWriter& set(const char* key, const T& value) {
    keys_.push_back(out_.string(key));
    values_.push_back(write(out_, value));
    return *this;
  }
  template <class T>
  DictionaryWriter& setIfPresent(const char* key, const std::optional<T>& value) {
    return value ? set(key, *value) : *this;
  }
  Ref finish() { return out_.dictionary(keys_, values_); }

 private:
  BinaryPlistWriter& out_;
  std::vector<Ref> keys_;
  std::vector<Ref> values_;
};

Ref write(BinaryPlistWriter& out, const KivFile& file) {
  return DictionaryWriter(out)
      .set("name", file.name)
      .setIfPresent("description", file.description)
      .set("ext", file.ext)
      .set("fileType", std::int64_t{zu::rawValue(file.fileType)})
      .set("dateTaken", file.dateTaken)
      .setIfPresent("slug", file.slug)
      .setIfPresent("_metadata", file._metadata)
      .setIfPresent("hash", file.hash)
      .setIfPresent("remoteUrl", file.remoteUrl)
      .setIfPresent("_lastFileUploadAttemptDate", file._lastFileUploadAttemptDate)
      .finish();
}

Ref write(BinaryPlistWriter& out, const std::vector<KivFile>& files) {
  std::vector<Ref> elements;
  elements.reserve(files.size());
  for (const auto& file : files) elements.push_back(write(out, file));
  return out.array(elements);
}

Ref write(BinaryPlistWriter& out, const KivReport& report) {
  return DictionaryWriter(out)
      .setIfPresent("id", report.id)
      .set("name", report.name)
      .set("created", report.created)
      .setIfPresent("note", report.note)
      .set("files", report.files)
      .setIfPresent("slug", report.slug)
      .setIfPresent("certificationRequestedDate", report.certificationRequestedDate)
      .setIfPresent("_metadata", report._metadata)
      .setIfPresent("hash", report.hash)
      .setIfPresent("email", report.email)
      .set("_proofStatusInt", std::int64_t{report._proofStatusInt})
      .finish();
}

// ---- Decoding the records. Each reader takes the node under `key` and fails on a value of another type.

std::string readString(plist_t node, std::string_view key) {
  const auto text = stringValue(node);
  if (!text) mismatch(key, "a text");
  return std::string(*text);
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
  if (!PLIST_IS_ARRAY(node)) mismatch(key, "key-value pairs");
  const auto pairs = elementsOf(node);
  if (pairs.size() % 2 != 0) mismatch(key, "key-value pairs");
  zu::FlatMetadata metadata;
  for (std::size_t i = 0; i < pairs.size(); i += 2) {
    if (!PLIST_IS_ARRAY(pairs[i])) mismatch(key, "a key path");
    zu::KeyPath path;
    for (const plist_t component : elementsOf(pairs[i])) path.push_back(readString(component, key));
    auto value = zu::AnyCodable::decode(PlistReader(pairs[i + 1], nullptr, std::string(key)));
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
  const auto elements = elementsOf(node);
  files.reserve(elements.size());
  for (const plist_t element : elements) files.push_back(readFile(element, key));
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
    BinaryPlistWriter out;
    std::vector<Ref> elements;
    elements.reserve(reports.size());
    for (const auto& report : reports) elements.push_back(write(out, report));
    return out.finish(out.array(elements));
  } catch (const CodingFailure& failure) {
    return codingError(failure);
  }
}

zu::Result<std::vector<KivReport>> decodeReports(const zu::Data& bytes) {
  const Plist root = zu::detail::parsePlist(bytes.data(), bytes.size());
  if (!root) return codingError({kReadCorruptCode, "The given data was not a valid property list."});
  if (!PLIST_IS_ARRAY(root.get())) return codingError({kReadCorruptCode, "Expected an array of reports"});
  std::vector<KivReport> reports;
  const auto elements = elementsOf(root.get());
  reports.reserve(elements.size());
  for (std::size_t i = 0; i < elements.size(); ++i) {
    try {
      reports.push_back(readReport(elements[i]));
    } catch (const CodingFailure& failure) {
      return codingError({failure.code, "Report " + std::to_string(i) + ": " + failure.message});
    }
  }
  return reports;
}

}  // namespace kiv::detail
