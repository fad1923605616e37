#include "AnyCodable/AnyCodable.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/detail/TypeName.hpp"

namespace zu {
namespace {

bool isSignedInteger(AnyCodable::Kind kind) {
  return kind >= AnyCodable::Kind::Int && kind <= AnyCodable::Kind::Int64;
}
bool isUnsignedInteger(AnyCodable::Kind kind) {
  return kind >= AnyCodable::Kind::UInt && kind <= AnyCodable::Kind::UInt64;
}

Error codingError(long code, std::string_view debugDescription, const std::vector<std::string>& codingPath) {
  AnyCodable::Array path(codingPath.begin(), codingPath.end());
  return Error(std::string(Error::cocoaDomain), code,
               {{std::string(Error::debugDescriptionKey), std::string(debugDescription)},
                {std::string(Error::codingPathKey), std::move(path)}});
}

// The shortest text that reads back as the same number; whole numbers keep a ".0", very large and very
// small magnitudes use an exponent ("1e+16", "1e-05"), as the platform prints them.
template <class Floating>
std::string numberText(Floating value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  constexpr Floating exactIntegerLimit =
      std::is_same_v<Floating, float> ? Floating(1 << 24) : Floating(1LL << 53);
  const Floating magnitude = std::fabs(value);
  const bool fixed = value == 0 || (magnitude >= Floating(1e-4) && magnitude < exactIntegerLimit);
  char buffer[64];
  const auto format = fixed ? std::chars_format::fixed : std::chars_format::scientific;
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value, format).ptr;
  std::string text(buffer, end);
  if (fixed) {
    if (text.find('.') == std::string::npos) text += ".0";
    return text;
  }
  // to_chars writes "1e+16" and "1e-05" already; make a one-digit exponent two digits wide.
  const auto e = text.find('e');
  if (text.size() - e == 3) text.insert(e + 2, "0");
  return text;
}

std::string dateText(zu::Date date) {
  const auto seconds = static_cast<std::time_t>(std::floor(date.timeIntervalSince1970()));
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char buffer[40];
  const std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
  return std::string(buffer, length);
}

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (char c : text) {
    switch (c) {
      case '"':
        result += "\\\"";
        break;
      case '\\':
        result += "\\\\";
        break;
      case '\n':
        result += "\\n";
        break;
      case '\r':
        result += "\\r";
        break;
      case '\t':
        result += "\\t";
        break;
      default:
        result += c;
    }
  }
  return result + "\"";
}

Result<void> encodeValue(const AnyCodable& value, SingleValueEncoder& encoder,
                         std::vector<std::string>& path);

Result<void> encodeArray(const AnyCodable::Array& array, SingleValueEncoder& encoder,
                         std::vector<std::string>& path) {
  encoder.beginArray();
  for (std::size_t i = 0; i < array.size(); ++i) {
    path.push_back("Index " + std::to_string(i));
    if (auto encoded = encodeValue(array[i], encoder, path); !encoded) return encoded;
    path.pop_back();
  }
  encoder.endContainer();
  return {};
}

Result<void> encodeDictionary(const AnyCodable::Dictionary& dictionary, SingleValueEncoder& encoder,
                              std::vector<std::string>& path) {
  encoder.beginDictionary();
  for (const auto& [key, element] : dictionary) {
    encoder.encodeKey(key);
    path.push_back(key);
    if (auto encoded = encodeValue(element, encoder, path); !encoded) return encoded;
    path.pop_back();
  }
  encoder.endContainer();
  return {};
}

Result<void> encodeValue(const AnyCodable& value, SingleValueEncoder& encoder,
                         std::vector<std::string>& path) {
  using Kind = AnyCodable::Kind;
  const Kind kind = value.kind();
  if (kind == Kind::Empty) {
    encoder.encodeNil();
  } else if (kind == Kind::Bool) {
    encoder.encode(*value.boolValue());
  } else if (isSignedInteger(kind)) {
    encoder.encode(*value.intValue());
  } else if (isUnsignedInteger(kind)) {
    encoder.encode(*value.uintValue());
  } else if (kind == Kind::Float) {
    encoder.encode(static_cast<float>(*value.doubleValue()));
  } else if (kind == Kind::Double) {
    encoder.encode(*value.doubleValue());
  } else if (kind == Kind::String) {
    encoder.encode(*value.stringValue());
  } else if (kind == Kind::Date) {
    encoder.encode(*value.dateValue());
  } else if (kind == Kind::URL) {
    encoder.encode(*value.urlValue());
  } else if (kind == Kind::Array) {
    return encodeArray(*value.arrayValue(), encoder, path);
  } else if (kind == Kind::Dictionary) {
    return encodeDictionary(*value.dictionaryValue(), encoder, path);
  } else {
    return codingError(CocoaError::coderInvalidValue, "AnyCodable value cannot be encoded", path);
  }
  return {};
}

// Most dictionaries are small: comparing every pair of their keys costs less than hashing them all.
bool hasRepeatedKey(const std::vector<AnyCodable::Dictionary::Entry>& entries) {
  constexpr std::size_t kMostKeysComparedPairwise = 16;
  if (entries.size() <= kMostKeysComparedPairwise) {
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
      if (std::any_of(entries.begin(), entry,
                      [&](const auto& earlier) { return earlier.first == entry->first; }))
        return true;
    }
    return false;
  }
  std::unordered_set<std::string_view> keys;
  keys.reserve(entries.size());
  return !std::all_of(entries.begin(), entries.end(),
                      [&](const auto& entry) { return keys.insert(entry.first).second; });
}

template <class Items, class Render>
std::string joined(const Items& items, Render render) {
  std::string text;
  for (const auto& item : items) {
    if (!text.empty()) text += ", ";
    text += render(item);
  }
  return text;
}

}  // namespace

AnyCodable::Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  for (const auto& [key, value] : entries) insert(key, value);
}

AnyCodable::Dictionary AnyCodable::Dictionary::fromEntries(std::vector<Entry>&& entries) {
  Dictionary dictionary;
  if (!hasRepeatedKey(entries)) {
    dictionary.entries_ = std::move(entries);
    return dictionary;
  }
  // Reserved up front: the positions' keys view the texts where they stay.
  dictionary.entries_.reserve(entries.size());
  std::unordered_map<std::string_view, std::size_t> positions;
  positions.reserve(entries.size());
  for (auto& [key, value] : entries) {
    if (const auto position = positions.find(key); position != positions.end()) {
      dictionary.entries_[position->second].second = std::move(value);
      continue;
    }
    const auto& added = dictionary.entries_.emplace_back(std::move(key), std::move(value));
    positions.emplace(added.first, dictionary.entries_.size() - 1);
  }
  return dictionary;
}

const AnyCodable* AnyCodable::Dictionary::find(std::string_view key) const {
  const auto entry =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.first == key; });
  return entry == entries_.end() ? nullptr : &entry->second;
}

void AnyCodable::Dictionary::set(std::string key, AnyCodable value) {
  const auto entry =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.first == key; });
  if (entry == entries_.end()) {
    entries_.emplace_back(std::move(key), std::move(value));
  } else {
    entry->second = std::move(value);
  }
}

bool AnyCodable::Dictionary::insert(std::string key, AnyCodable value) {
  if (contains(key)) return false;
  entries_.emplace_back(std::move(key), std::move(value));
  return true;
}

AnyCodable& AnyCodable::Dictionary::operator[](std::string_view key) {
  const auto entry =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.first == key; });
  if (entry != entries_.end()) return entry->second;
  return entries_.emplace_back(std::string(key), AnyCodable()).second;
}

bool operator==(const AnyCodable::Dictionary& lhs, const AnyCodable::Dictionary& rhs) {
  if (lhs.size() != rhs.size()) return false;
  return std::all_of(lhs.begin(), lhs.end(), [&](const AnyCodable::Dictionary::Entry& entry) {
    const AnyCodable* other = rhs.find(entry.first);
    return other && *other == entry.second;
  });
}

std::optional<bool> AnyCodable::boolValue() const {
  if (const auto* value = std::get_if<bool>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<std::int64_t> AnyCodable::intValue() const {
  if (const auto* value = std::get_if<std::int64_t>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<std::uint64_t> AnyCodable::uintValue() const {
  if (const auto* value = std::get_if<std::uint64_t>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<double> AnyCodable::doubleValue() const {
  if (const auto* value = std::get_if<double>(&storage_)) return *value;
  if (const auto* value = std::get_if<float>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<zu::Date> AnyCodable::dateValue() const {
  if (const auto* value = std::get_if<zu::Date>(&storage_)) return *value;
  return std::nullopt;
}

Result<void> AnyCodable::encode(SingleValueEncoder& encoder) const {
  std::vector<std::string> path;
  return encodeValue(*this, encoder, path);
}

Result<AnyCodable> AnyCodable::decode(const SingleValueDecoder& decoder) {
  if (decoder.decodeNil()) return AnyCodable();
  if (auto value = decoder.decodeBool()) return AnyCodable(*value);
  if (auto value = decoder.decodeInt()) return AnyCodable(Kind::Int, *value);
  if (auto value = decoder.decodeUInt()) return AnyCodable(Kind::UInt, *value);
  if (auto value = decoder.decodeDouble()) return AnyCodable(*value);
  if (auto value = decoder.decodeString()) return AnyCodable(std::move(*value));
  if (auto elements = decoder.decodeArray()) {
    Array array;
    array.reserve(elements->size());
    for (const auto& element : *elements) {
      auto decoded = decode(*element);
      if (!decoded) return decoded.error();
      array.push_back(std::move(*decoded));
    }
    return AnyCodable(std::move(array));
  }
  if (auto members = decoder.decodeDictionary()) {
    std::vector<Dictionary::Entry> entries;
    entries.reserve(members->size());
    for (auto& [key, member] : *members) {
      auto decoded = decode(*member);
      if (!decoded) return decoded.error();
      entries.emplace_back(std::move(key), std::move(*decoded));
    }
    return AnyCodable(Dictionary::fromEntries(std::move(entries)));
  }
  return codingError(CocoaError::coderReadCorrupt, "AnyCodable value cannot be decoded",
                     decoder.codingPath());
}

std::string AnyCodable::description() const {
  if (const auto* text = stringValue()) return *text;
  return valueDebugDescription();
}

std::string AnyCodable::valueDebugDescription() const {
  switch (kind_) {
    case Kind::Empty:
      return "nil";
    case Kind::Bool:
      return *boolValue() ? "true" : "false";
    case Kind::Float:
      return numberText(std::get<float>(storage_));
    case Kind::Double:
      return numberText(std::get<double>(storage_));
    case Kind::String:
      return quoted(*stringValue());
    case Kind::Date:
      return dateText(*dateValue());
    case Kind::URL:
      return urlValue()->absoluteString();
    case Kind::Array:
      return "[" + joined(*arrayValue(), [](const AnyCodable& e) { return e.valueDebugDescription(); }) + "]";
    case Kind::Dictionary: {
      const auto& dictionary = *dictionaryValue();
      if (dictionary.empty()) return "[:]";
      return "[" +
             joined(dictionary,
                    [](const Dictionary::Entry& e) {
                      return quoted(e.first) + ": " + e.second.valueDebugDescription();
                    }) +
             "]";
    }
    case Kind::Opaque:
      return detail::typeName(opaqueValue()->type());
    default:
      return isSignedInteger(kind_) ? std::to_string(*intValue()) : std::to_string(*uintValue());
  }
}

std::string AnyCodable::debugDescription() const { return "AnyCodable(" + valueDebugDescription() + ")"; }

bool operator==(const AnyCodable& lhs, const AnyCodable& rhs) {
  using Kind = AnyCodable::Kind;
  if (lhs.kind_ != rhs.kind_) return false;
  switch (lhs.kind_) {
    case Kind::Date:
    case Kind::URL:
    case Kind::Opaque:
      return false;  // deliberately: these kinds have no equality of their own
    default:
      // Same kind, so the same alternative.
      return std::visit(
          [&](const auto& value) {
            using Stored = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<Stored, std::any>) {
              return false;
            } else {
              return value == std::get<Stored>(rhs.storage_);
            }
          },
          lhs.storage_);
  }
}

Result<void> AnyEncodable::encode(SingleValueEncoder& encoder) const { return value_.encode(encoder); }

Result<AnyDecodable> AnyDecodable::decode(const SingleValueDecoder& decoder) {
  auto decoded = AnyCodable::decode(decoder);
  if (!decoded) return decoded.error();
  return AnyDecodable(std::move(*decoded));
}

}  // namespace zu
