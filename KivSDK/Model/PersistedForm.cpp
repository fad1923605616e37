#include "KivSDK/Model/detail/PersistedForm.hpp"

#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "KivSDK/Model/detail/BinaryPlistReader.hpp"
#include "KivSDK/Model/detail/BinaryPlistWriter.hpp"
#include "ZuFoundation/detail/Plist.hpp"

namespace kiv::detail {
namespace {

using Ref = BinaryPlistWriter::Ref;

constexpr long kReadCorruptCode = zu::CocoaError::coderReadCorrupt;
constexpr long kInvalidValueCode = zu::CocoaError::coderInvalidValue;
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

// A whole value in the signed 64-bit range as an integer.
std::optional<std::int64_t> wholeNumber(std::optional<double> value) {
  if (!value || std::trunc(*value) != *value || *value < -0x1p63 || *value >= 0x1p63) return std::nullopt;
  return static_cast<std::int64_t>(*value);
}

// ---- Dates, kept to the microsecond: a date is stored as its whole seconds (32-bit) plus its microseconds,
// summed into the double libplist makes of those parts, so that libplist and the reader here both read it
// back exactly.

struct DateParts {
  std::int32_t seconds;
  std::int32_t micros;
};

DateParts dateParts(std::int64_t micros) {
  std::int64_t seconds = micros / kMicrosPerSecond;
  if (micros % kMicrosPerSecond < 0) --seconds;
  return {static_cast<std::int32_t>(seconds), static_cast<std::int32_t>(micros - seconds * kMicrosPerSecond)};
}

double storedSeconds(std::int64_t micros) {
  const DateParts parts = dateParts(micros);
  return static_cast<double>(parts.seconds) + static_cast<double>(parts.micros) / 1e6;
}

// Whether a date of `seconds` fits the stored form: whole seconds within 32 bits, once rounded to the
// microsecond.
bool isStorable(double seconds) { return std::fabs(std::round(seconds * 1e6)) < 0x1p31 * 1e6; }

Ref writeDate(BinaryPlistWriter& out, zu::Date date) {
  if (!isStorable(date.timeIntervalSinceReferenceDate()))
    fail(kInvalidValueCode, "Date out of the storable range");
  const double micros = std::round(date.timeIntervalSinceReferenceDate() * 1e6);
  return out.date(storedSeconds(static_cast<std::int64_t>(micros)));
}

// A date written here reads back exactly; a finer one written elsewhere is truncated toward zero to the
// microsecond; one beyond the storable range (a metadata value) is taken as it is.
zu::Date decodeDate(double seconds) {
  if (!isStorable(seconds)) return zu::Date(seconds);
  const double nearest = std::round(seconds * 1e6);
  const bool writtenHere = storedSeconds(static_cast<std::int64_t>(nearest)) == seconds;
  return zu::Date((writtenHere ? nearest : std::trunc(seconds * 1e6)) / 1e6);
}

// The platform's encoding of a URL. Its text is stored before its key, as in every list stored so far.
Ref writeURL(BinaryPlistWriter& out, const zu::URL& url) {
  const Ref value = out.string(url.absoluteString());
  const Ref key = out.string("relative");
  return out.dictionary(std::span(&key, 1), std::span(&value, 1));
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
    if (value > std::uint64_t{INT64_MAX})
      failure_ = "Unsigned integer " + std::to_string(value) + " cannot be stored";
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
    put(container.isDictionary ? out_.dictionary(container.keys, container.values)
                               : out_.array(container.values));
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

// ---- Reading the stored document.

// The document being read, with a budget of container elements to visit: a container may hold itself or be
// shared many times over, which would make a walk endless or exponential. A document whose containers are
// not shared visits each element once, never more elements than it has bytes.
class Document {
 public:
  Document(const BinaryPlistReader& plist, std::uint64_t size) : plist_(plist), visitsLeft_(size) {}

  const BinaryPlistReader& plist() const { return plist_; }

  std::optional<BinaryPlistReader::Refs> array(Ref ref) {
    const auto elements = plist_.array(ref);
    return elements && visit(elements->size()) ? elements : std::nullopt;
  }
  std::optional<BinaryPlistReader::Dictionary> dictionary(Ref ref) {
    const auto members = plist_.dictionary(ref);
    return members && visit(members->keys.size()) ? members : std::nullopt;
  }

  std::optional<std::string> string(Ref ref) const {
    std::string buffer;
    const auto text = plist_.text(ref, buffer);
    return text ? std::optional<std::string>(*text) : std::nullopt;
  }
  bool isNull(Ref ref) const {
    std::string buffer;
    return plist_.text(ref, buffer) == kNullText;
  }
  // An integer, or a real with a whole value in the signed 64-bit range.
  std::optional<std::int64_t> integer(Ref ref) const {
    if (const auto integer = plist_.integer(ref)) return integer;
    return wholeNumber(plist_.real(ref));
  }

 private:
  bool visit(std::uint64_t elements) {
    if (elements > visitsLeft_) return false;
    visitsLeft_ -= elements;
    return true;
  }

  const BinaryPlistReader& plist_;
  std::uint64_t visitsLeft_;
};

// Metadata values nest no deeper than this; a deeper one is refused rather than followed down the stack.
constexpr int kMaxValueDepth = 256;

// A number: an Int when whole within the signed 64-bit range, else a Double. (A whole one beyond it stays a
// Double: as an unsigned integer it could not be stored again.)
zu::AnyCodable number(double value) {
  if (const auto whole = wholeNumber(value)) return zu::AnyCodable(*whole);
  return zu::AnyCodable(value);
}

std::optional<zu::AnyCodable> readValue(Document& document, Ref ref, int depth);

std::optional<zu::AnyCodable> readArrayValue(Document& document, Ref ref, int depth) {
  const auto refs = depth < kMaxValueDepth ? document.array(ref) : std::nullopt;
  if (!refs) return std::nullopt;
  zu::AnyCodable::Array elements;
  elements.reserve(refs->size());
  for (std::uint64_t i = 0; i < refs->size(); ++i) {
    auto element = readValue(document, (*refs)[i], depth + 1);
    if (!element) return std::nullopt;
    elements.push_back(std::move(*element));
  }
  return zu::AnyCodable(std::move(elements));
}

std::optional<zu::AnyCodable> readDictionaryValue(Document& document, Ref ref, int depth) {
  const auto members = depth < kMaxValueDepth ? document.dictionary(ref) : std::nullopt;
  if (!members) return std::nullopt;
  std::vector<zu::AnyCodable::Dictionary::Entry> entries;
  entries.reserve(members->keys.size());
  for (std::uint64_t i = 0; i < members->keys.size(); ++i) {
    auto key = document.string(members->keys[i]);
    auto value = key ? readValue(document, members->values[i], depth + 1) : std::nullopt;
    if (!value) return std::nullopt;
    entries.emplace_back(std::move(*key), std::move(*value));
  }
  return zu::AnyCodable(zu::AnyCodable::Dictionary::fromEntries(std::move(entries)));
}

// A metadata value, of the kind its JSON form reads as: "$null" (the platform's nil) is nil; a real, or a
// date as its seconds since the reference date, is a number (an integer when whole, so that a value reads the
// same once written back as a number); texts, booleans, integers of up to 64 bits, arrays and dictionaries
// with text keys are themselves. Nothing for any other value (data, a keyed archiver's UID, a wider integer).
std::optional<zu::AnyCodable> readValue(Document& document, Ref ref, int depth) {
  const BinaryPlistReader& plist = document.plist();
  switch (plist.kind(ref)) {
    case BinaryPlistReader::Kind::Boolean:
      return zu::AnyCodable(*plist.boolean(ref));
    case BinaryPlistReader::Kind::Integer: {
      const auto integer = plist.integer(ref);
      return integer ? std::optional(zu::AnyCodable(*integer)) : std::nullopt;
    }
    case BinaryPlistReader::Kind::Real:
      return number(*plist.real(ref));
    case BinaryPlistReader::Kind::Date:
      return number(decodeDate(*plist.date(ref)).timeIntervalSinceReferenceDate());
    case BinaryPlistReader::Kind::String: {
      std::string buffer;
      const std::string_view text = *plist.text(ref, buffer);
      return text == kNullText ? zu::AnyCodable() : zu::AnyCodable(text);
    }
    case BinaryPlistReader::Kind::Array:
      return readArrayValue(document, ref, depth);
    case BinaryPlistReader::Kind::Dictionary:
      return readDictionaryValue(document, ref, depth);
    default:
      return std::nullopt;
  }
}

// ---- The records' stored fields. One table per record names each field's key and member, in declaration
// order; the writer and the reader both walk it.

template <class Record, class Value>
struct Field {
  std::string_view key;
  Value Record::*member;
};

template <class Record, class Value>
constexpr Field<Record, Value> field(std::string_view key, Value Record::*member) {
  return {key, member};
}

template <class Record>
struct Stored;

template <>
struct Stored<KivFile> {
  static constexpr auto fields = std::tuple{
      field("name", &KivFile::name),
      field("description", &KivFile::description),
      field("ext", &KivFile::ext),
      field("fileType", &KivFile::fileType),
      field("dateTaken", &KivFile::dateTaken),
      field("slug", &KivFile::slug),
      field("_metadata", &KivFile::_metadata),
      field("hash", &KivFile::hash),
      field("remoteUrl", &KivFile::remoteUrl),
      field("_lastFileUploadAttemptDate", &KivFile::_lastFileUploadAttemptDate),
  };
  static constexpr std::string_view shape = "a file dictionary";
  /// A record whose every field the reader then sets.
  static KivFile blank() {
    static const KivFile prototype({}, {}, zu::Date());
    return prototype;
  }
};

template <>
struct Stored<KivReport> {
  static constexpr auto fields = std::tuple{
      field("id", &KivReport::id),
      field("name", &KivReport::name),
      field("created", &KivReport::created),
      field("note", &KivReport::note),
      field("files", &KivReport::files),
      field("slug", &KivReport::slug),
      field("certificationRequestedDate", &KivReport::certificationRequestedDate),
      field("_metadata", &KivReport::_metadata),
      field("hash", &KivReport::hash),
      field("email", &KivReport::email),
      field("_proofStatusInt", &KivReport::_proofStatusInt),
  };
  static constexpr std::string_view shape = "a report dictionary";
  /// A record whose every field the reader then sets: a copy of one made once, as a new report draws a
  /// random identifier.
  static KivReport blank() {
    static const KivReport prototype({});
    return prototype;
  }
};

/// Calls `visit(field, position)` for each field of `Record`'s table, in order.
template <class Record, class Visit>
void forEachField(Visit visit) {
  constexpr auto& fields = Stored<Record>::fields;
  [&]<std::size_t... I>(std::index_sequence<I...>) { (visit(std::get<I>(fields), I), ...); }
  (std::make_index_sequence<std::tuple_size_v<std::remove_cvref_t<decltype(fields)>>>{});
}

template <class T>
constexpr bool kIsOptional = false;
template <class T>
constexpr bool kIsOptional<std::optional<T>> = true;

// ---- Encoding the records.

Ref write(BinaryPlistWriter& out, const std::string& text) { return out.string(text); }
Ref write(BinaryPlistWriter& out, zu::Date date) { return writeDate(out, date); }
Ref write(BinaryPlistWriter& out, const zu::URL& url) { return writeURL(out, url); }
Ref write(BinaryPlistWriter& out, const zu::UUID& id) { return out.string(id.uuidString()); }
Ref write(BinaryPlistWriter& out, int integer) { return out.integer(integer); }
Ref write(BinaryPlistWriter& out, KivFile::FileType type) { return out.integer(zu::rawValue(type)); }

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

// A record's dictionary: its fields in the table's order, absent optionals left out.
template <class Record>
Ref writeRecord(BinaryPlistWriter& out, const Record& record) {
  std::vector<Ref> keys;
  std::vector<Ref> values;
  forEachField<Record>([&](const auto& field, std::size_t) {
    const auto& value = record.*field.member;
    if constexpr (kIsOptional<std::remove_cvref_t<decltype(value)>>) {
      if (!value) return;
      keys.push_back(out.string(field.key));
      values.push_back(write(out, *value));
    } else {
      keys.push_back(out.string(field.key));
      values.push_back(write(out, value));
    }
  });
  return out.dictionary(keys, values);
}

Ref write(BinaryPlistWriter& out, const std::vector<KivFile>& files) {
  std::vector<Ref> elements;
  elements.reserve(files.size());
  for (const auto& file : files) elements.push_back(writeRecord(out, file));
  return out.array(elements);
}

// ---- Decoding the records. Each reader takes the value under `key` and fails on a value of another type.

// The values of a dictionary's fields, found in one pass over it by their keys; other keys are ignored.
template <std::size_t N>
class Fields {
 public:
  Fields(const Document& document, const BinaryPlistReader::Dictionary& members,
         const std::array<std::string_view, N>& names) {
    std::string buffer;
    std::size_t expected = 0;  // the position after the last one found: stored keys follow the table's order
    for (std::uint64_t i = 0; i < members.keys.size(); ++i) {
      const auto key = document.plist().text(members.keys[i], buffer);
      if (!key) fail(kReadCorruptCode, "Expected a text key");
      for (std::size_t k = 0; k < N; ++k) {
        const std::size_t position = (expected + k) % N;
        if (names[position] != *key) continue;
        values_[position] = members.values[i];
        expected = position + 1;
        break;
      }
    }
  }

  /// The value of the field named at `position`.
  std::optional<Ref> operator[](std::size_t position) const { return values_[position]; }

 private:
  std::array<std::optional<Ref>, N> values_;
};

template <std::size_t N>
Fields<N> readFields(Document& document, Ref ref, const std::array<std::string_view, N>& names,
                     std::string_view key, std::string_view expected) {
  const auto members = document.dictionary(ref);
  if (!members) mismatch(key, expected);
  return Fields<N>(document, *members, names);
}

std::string readString(Document& document, Ref ref, std::string_view key) {
  auto text = document.string(ref);
  if (!text) mismatch(key, "a text");
  return std::move(*text);
}

zu::Date readDate(Document& document, Ref ref, std::string_view key) {
  const auto seconds = document.plist().date(ref);
  // A record's date beyond the storable range would load but never persist again, and a failed persist
  // leaves no list at all: such a list is refused here instead, and its bytes stay stored.
  if (!seconds || !isStorable(*seconds)) mismatch(key, "a date");
  return decodeDate(*seconds);
}

std::int64_t readInteger(Document& document, Ref ref, std::string_view key) {
  const auto integer = document.integer(ref);
  if (!integer) mismatch(key, "an integer");
  return *integer;
}

int readInt(Document& document, Ref ref, std::string_view key) {
  const auto integer = readInteger(document, ref, key);
  if (integer < INT_MIN || integer > INT_MAX) mismatch(key, "an Int");
  return static_cast<int>(integer);
}

KivFile::FileType readFileType(Document& document, Ref ref, std::string_view key) {
  const auto integer = readInteger(document, ref, key);
  const auto type = integer < INT_MIN || integer > INT_MAX
                        ? std::nullopt
                        : zu::fromRawValue<KivFile::FileType>(static_cast<int>(integer));
  if (!type)
    fail(kReadCorruptCode, "Cannot initialize FileType from invalid Int value " + std::to_string(integer));
  return *type;
}

zu::UUID readUUID(Document& document, Ref ref, std::string_view key) {
  std::string buffer;
  const auto text = document.plist().text(ref, buffer);
  if (!text) mismatch(key, "a text");
  const auto id = zu::UUID::fromString(*text);
  if (!id) mismatch(key, "a UUID text");
  return *id;
}

// The platform's URL encoding: the text under "relative", resolved against "base" when there is one.
zu::URL readURL(Document& document, Ref ref, std::string_view key) {
  static constexpr std::array<std::string_view, 2> kNames{"relative", "base"};
  const auto fields = readFields(document, ref, kNames, key, "a URL dictionary");
  const auto relative = fields[0];
  auto url = relative ? zu::URL::fromString(readString(document, *relative, key)) : std::nullopt;
  // A relative reference would need resolving against "base", which URLs of this SDK never carry.
  if (!url || (fields[1] && url->scheme().empty())) mismatch(key, "an absolute URL");
  return std::move(*url);
}

zu::FlatMetadata readMetadata(Document& document, Ref ref, std::string_view key) {
  const auto pairs = document.array(ref);
  if (!pairs || pairs->size() % 2 != 0) mismatch(key, "key-value pairs");
  zu::FlatMetadata metadata;
  for (std::uint64_t i = 0; i < pairs->size(); i += 2) {
    const auto components = document.array((*pairs)[i]);
    if (!components) mismatch(key, "a key path");
    zu::KeyPath path;
    path.reserve(components->size());
    for (std::uint64_t k = 0; k < components->size(); ++k)
      path.push_back(readString(document, (*components)[k], key));
    auto value = readValue(document, (*pairs)[i + 1], 0);
    if (!value) mismatch(key, "metadata values");
    // The writer stores the keys in their order, so each one read belongs at the end.
    metadata.insert_or_assign(metadata.end(), std::move(path), std::move(*value));
  }
  return metadata;
}

std::vector<KivFile> readFiles(Document& document, Ref ref, std::string_view key);  // below

// The reader of each type a record's field holds.
template <class T>
T read(Document& document, Ref ref, std::string_view key) {
  if constexpr (std::is_same_v<T, std::string>) return readString(document, ref, key);
  if constexpr (std::is_same_v<T, zu::Date>) return readDate(document, ref, key);
  if constexpr (std::is_same_v<T, int>) return readInt(document, ref, key);
  if constexpr (std::is_same_v<T, KivFile::FileType>) return readFileType(document, ref, key);
  if constexpr (std::is_same_v<T, zu::UUID>) return readUUID(document, ref, key);
  if constexpr (std::is_same_v<T, zu::URL>) return readURL(document, ref, key);
  if constexpr (std::is_same_v<T, zu::FlatMetadata>) return readMetadata(document, ref, key);
  if constexpr (std::is_same_v<T, std::vector<KivFile>>) return readFiles(document, ref, key);
}

// A record from its dictionary: a required field must be there; an optional one may be missing or "$null".
template <class Record>
Record readRecord(Document& document, Ref ref, std::string_view key) {
  static constexpr auto kNames = std::apply(
      [](const auto&... field) { return std::array<std::string_view, sizeof...(field)>{field.key...}; },
      Stored<Record>::fields);
  const auto fields = readFields(document, ref, kNames, key, Stored<Record>::shape);
  Record record = Stored<Record>::blank();
  forEachField<Record>([&](const auto& field, std::size_t position) {
    auto& value = record.*field.member;
    using Value = std::remove_cvref_t<decltype(value)>;
    const auto found = fields[position];
    if constexpr (kIsOptional<Value>) {
      if (!found || document.isNull(*found)) {
        value = std::nullopt;
      } else {
        value = read<typename Value::value_type>(document, *found, field.key);
      }
    } else {
      if (!found) fail(kReadCorruptCode, "No value for the key \"" + std::string(field.key) + "\"");
      value = read<Value>(document, *found, field.key);
    }
  });
  return record;
}

std::vector<KivFile> readFiles(Document& document, Ref ref, std::string_view key) {
  const auto elements = document.array(ref);
  if (!elements) mismatch(key, "an array of files");
  std::vector<KivFile> files;
  files.reserve(elements->size());
  for (std::uint64_t i = 0; i < elements->size(); ++i)
    files.push_back(readRecord<KivFile>(document, (*elements)[i], key));
  return files;
}

// A list in another form libplist reads (XML) comes from elsewhere and is small: it is turned binary, so that
// one reader decodes every list.
std::optional<zu::Data> binaryFormOf(std::span<const std::uint8_t> bytes) {
  const zu::detail::Plist root = zu::detail::parsePlist(bytes.data(), bytes.size());
  if (!root) return std::nullopt;
  return zu::detail::binaryPlist(root.get());
}

}  // namespace

zu::Result<zu::Data> encodeReports(const std::vector<KivReport>& reports) {
  try {
    BinaryPlistWriter out;
    std::vector<Ref> elements;
    elements.reserve(reports.size());
    for (const auto& report : reports) elements.push_back(writeRecord(out, report));
    const Ref root = out.array(elements);
    return std::move(out).finish(root);
  } catch (const CodingFailure& failure) {
    return codingError(failure);
  }
}

zu::Result<std::vector<KivReport>> decodeReports(std::span<const std::uint8_t> bytes) {
  std::optional<zu::Data> converted;
  auto plist = BinaryPlistReader::open(bytes);
  if (!plist && (converted = binaryFormOf(bytes))) plist = BinaryPlistReader::open(*converted);
  if (!plist) return codingError({kReadCorruptCode, "The given data was not a valid property list."});
  Document document(*plist, converted ? converted->size() : bytes.size());
  const auto elements = document.array(plist->root());
  if (!elements) return codingError({kReadCorruptCode, "Expected an array of reports"});
  std::vector<KivReport> reports;
  reports.reserve(elements->size());
  for (std::uint64_t i = 0; i < elements->size(); ++i) {
    try {
      reports.push_back(readRecord<KivReport>(document, (*elements)[i], "report"));
    } catch (const CodingFailure& failure) {
      return codingError({failure.code, "Report " + std::to_string(i) + ": " + failure.message});
    }
  }
  return reports;
}

}  // namespace kiv::detail
