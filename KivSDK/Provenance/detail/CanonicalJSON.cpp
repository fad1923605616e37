#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/Provenance/ProvenanceError.hpp"

namespace kiv::detail {
namespace {

constexpr std::uint64_t kLargestInteger = (std::uint64_t{1} << 53) - 1;

zu::Error outsideSubset(std::string_view what) {
  return ProvenanceError::make(ProvenanceError::malformed, "canonical JSON holds no " + std::string(what));
}

// The length of the UTF-8 sequence that `lead` starts, 0 when no sequence starts with it.
std::size_t sequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead <= 0xdf) return 2;
  if (lead >= 0xe0 && lead <= 0xef) return 3;
  if (lead >= 0xf0 && lead <= 0xf4) return 4;
  return 0;
}

void appendString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += "\\u00";
          out.push_back(kHex[(c >> 4) & 0xf]);
          out.push_back(kHex[c & 0xf]);
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

zu::Result<void> append(std::string& out, const zu::AnyCodable& value);

zu::Result<void> appendObject(std::string& out, const zu::AnyCodable::Dictionary& object) {
  std::vector<const zu::AnyCodable::Dictionary::Entry*> members;
  members.reserve(object.size());
  for (const auto& member : object) members.push_back(&member);
  // std::string compares as unsigned char, so this is the order of the keys' UTF-8 bytes.
  std::sort(members.begin(), members.end(), [](const auto* a, const auto* b) { return a->first < b->first; });
  out.push_back('{');
  for (const auto* member : members) {
    if (out.back() != '{') out.push_back(',');
    if (!isUTF8(member->first)) return outsideSubset("key that is not UTF-8 text");
    appendString(out, member->first);
    out.push_back(':');
    if (auto appended = append(out, member->second); !appended) return appended;
  }
  out.push_back('}');
  return {};
}

zu::Result<void> appendArray(std::string& out, const zu::AnyCodable::Array& array) {
  out.push_back('[');
  for (const zu::AnyCodable& element : array) {
    if (out.back() != '[') out.push_back(',');
    if (auto appended = append(out, element); !appended) return appended;
  }
  out.push_back(']');
  return {};
}

zu::Result<void> append(std::string& out, const zu::AnyCodable& value) {
  if (value.isEmpty()) {
    out += "null";
  } else if (const std::string* text = value.stringValue()) {
    if (!isUTF8(*text)) return outsideSubset("string that is not UTF-8 text");
    appendString(out, *text);
  } else if (const auto* object = value.dictionaryValue()) {
    return appendObject(out, *object);
  } else if (const auto* array = value.arrayValue()) {
    return appendArray(out, *array);
  } else if (const auto number = value.uintValue(); number && *number <= kLargestInteger) {
    out += std::to_string(*number);
  } else if (const auto integer = value.intValue();
             integer && *integer >= 0 && static_cast<std::uint64_t>(*integer) <= kLargestInteger) {
    out += std::to_string(*integer);
  } else {
    return outsideSubset("value of this kind: " + value.debugDescription());
  }
  return {};
}

}  // namespace

bool isUTF8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = sequenceLength(lead);
    if (length == 0 || i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xc0) != 0x80) return false;
    }
    if (length > 1) {
      const auto second = static_cast<unsigned char>(text[i + 1]);
      if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
          (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f)) {
        return false;
      }
    }
    i += length;
  }
  return true;
}

zu::Result<std::string> canonicalJSON(const zu::AnyCodable& value) {
  std::string text;
  if (auto appended = append(text, value); !appended) return appended.error();
  return text;
}

zu::Result<zu::AnyCodable::Dictionary> readCanonicalObject(std::string_view text) {
  const auto parsed = zu::JSONSerialization::jsonObject(zu::Data(text.begin(), text.end()));
  const zu::AnyCodable::Dictionary* object = parsed ? parsed->dictionaryValue() : nullptr;
  if (!object) return ProvenanceError::make(ProvenanceError::malformed, "not a JSON object");
  const auto canonical = canonicalJSON(*parsed);
  if (!canonical) return canonical.error();
  if (*canonical != text) {
    return ProvenanceError::make(
        ProvenanceError::malformed,
        "not canonical JSON (keys out of order, whitespace, escapes or a repeated key)");
  }
  return *object;
}

}  // namespace kiv::detail
