#include "KivSDK/Store/detail/BinaryPlistWriter.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kiv::detail {
namespace {

constexpr std::uint8_t kFalse = 0x08;
constexpr std::uint8_t kTrue = 0x09;
constexpr std::uint8_t kInteger = 0x10;
constexpr std::uint8_t kReal = 0x20;
constexpr std::uint8_t kDate = 0x30;
constexpr std::uint8_t kAsciiString = 0x50;
constexpr std::uint8_t kUtf16String = 0x60;
constexpr std::uint8_t kArray = 0xA0;
constexpr std::uint8_t kDictionary = 0xD0;
constexpr std::uint32_t kReplacementCharacter = 0xFFFD;

void appendBigEndian(zu::Data& out, std::uint64_t value, unsigned bytes) {
  for (unsigned i = bytes; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// The smallest of 1, 2, 4 and 8 bytes that holds `value`.
unsigned widthFor(std::uint64_t value) {
  if (value <= 0xFF) return 1;
  if (value <= 0xFFFF) return 2;
  if (value <= 0xFFFFFFFF) return 4;
  return 8;
}

// Integers are written unsigned in 1, 2 or 4 bytes, and in 8 bytes (signed) when negative or larger.
void appendInteger(zu::Data& out, std::int64_t value) {
  const unsigned width = value < 0 ? 8 : widthFor(static_cast<std::uint64_t>(value));
  out.push_back(static_cast<std::uint8_t>(kInteger | std::countr_zero(width)));
  appendBigEndian(out, static_cast<std::uint64_t>(value), width);
}

// A marker with its object count: in the low nibble when below 15, else as an integer that follows.
void appendMarker(zu::Data& out, std::uint8_t marker, std::uint64_t count) {
  if (count < 15) {
    out.push_back(static_cast<std::uint8_t>(marker | count));
  } else {
    out.push_back(static_cast<std::uint8_t>(marker | 0x0F));
    appendInteger(out, static_cast<std::int64_t>(count));
  }
}

void appendDouble(zu::Data& out, std::uint8_t marker, double value) {
  out.push_back(static_cast<std::uint8_t>(marker | 3));  // 2^3 bytes
  appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

// The code points of UTF-8 text; a byte that starts no valid sequence becomes U+FFFD.
std::vector<std::uint32_t> codePoints(std::string_view text) {
  std::vector<std::uint32_t> points;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<std::uint8_t>(text[i]);
    const unsigned length = lead < 0x80         ? 1
                            : lead >> 5 == 0x6  ? 2
                            : lead >> 4 == 0xE  ? 3
                            : lead >> 3 == 0x1E ? 4
                                                : 0;
    std::uint32_t point = length == 1   ? lead
                          : length == 2 ? lead & 0x1Fu
                          : length == 3 ? lead & 0x0Fu
                                        : lead & 0x07u;
    bool valid = length != 0 && i + length <= text.size();
    for (unsigned k = 1; valid && k < length; ++k) {
      const auto next = static_cast<std::uint8_t>(text[i + k]);
      valid = next >> 6 == 0x2;
      point = point << 6 | (next & 0x3Fu);
    }
    constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    valid = valid && point >= kSmallest[length] && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
    points.push_back(valid ? point : kReplacementCharacter);
    i += valid ? length : 1;
  }
  return points;
}

void appendUtf16(zu::Data& out, std::string_view text) {
  std::vector<std::uint16_t> units;
  for (const std::uint32_t point : codePoints(text)) {
    if (point < 0x10000) {
      units.push_back(static_cast<std::uint16_t>(point));
    } else {
      units.push_back(static_cast<std::uint16_t>(0xD800 + ((point - 0x10000) >> 10)));
      units.push_back(static_cast<std::uint16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
    }
  }
  appendMarker(out, kUtf16String, units.size());
  for (const std::uint16_t unit : units) appendBigEndian(out, unit, 2);
}

}  // namespace

BinaryPlistWriter::Ref BinaryPlistWriter::addScalar(const zu::Data& bytes) {
  objects_.push_back({Kind::Scalar, scalars_.size(), scalars_.size() + bytes.size()});
  scalars_.insert(scalars_.end(), bytes.begin(), bytes.end());
  return objects_.size() - 1;
}

BinaryPlistWriter::Ref BinaryPlistWriter::addContainer(Kind kind, const std::vector<Ref>& first,
                                                       const std::vector<Ref>& second) {
  objects_.push_back({kind, refs_.size(), refs_.size() + first.size() + second.size()});
  refs_.insert(refs_.end(), first.begin(), first.end());
  refs_.insert(refs_.end(), second.begin(), second.end());
  return objects_.size() - 1;
}

BinaryPlistWriter::Ref BinaryPlistWriter::boolean(bool value) { return addScalar({value ? kTrue : kFalse}); }

BinaryPlistWriter::Ref BinaryPlistWriter::integer(std::int64_t value) {
  zu::Data bytes;
  appendInteger(bytes, value);
  return addScalar(bytes);
}

BinaryPlistWriter::Ref BinaryPlistWriter::real(double value) {
  zu::Data bytes;
  appendDouble(bytes, kReal, value);
  return addScalar(bytes);
}

BinaryPlistWriter::Ref BinaryPlistWriter::date(double seconds) {
  zu::Data bytes;
  appendDouble(bytes, kDate, seconds);
  return addScalar(bytes);
}

BinaryPlistWriter::Ref BinaryPlistWriter::string(std::string_view text) {
  const auto [known, added] = strings_.try_emplace(std::string(text), objects_.size());
  if (!added) return known->second;
  zu::Data bytes;
  const bool ascii =
      std::all_of(text.begin(), text.end(), [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
  if (ascii) {
    appendMarker(bytes, kAsciiString, text.size());
    bytes.insert(bytes.end(), text.begin(), text.end());
  } else {
    appendUtf16(bytes, text);
  }
  return addScalar(bytes);
}

BinaryPlistWriter::Ref BinaryPlistWriter::array(const std::vector<Ref>& elements) {
  return addContainer(Kind::Array, elements, {});
}

BinaryPlistWriter::Ref BinaryPlistWriter::dictionary(const std::vector<Ref>& keys,
                                                     const std::vector<Ref>& values) {
  return addContainer(Kind::Dictionary, keys, values);
}

zu::Data BinaryPlistWriter::finish(Ref root) const {
  const unsigned refWidth = widthFor(objects_.size());
  zu::Data out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  out.reserve(8 + scalars_.size() + refs_.size() * refWidth + objects_.size() * 8 + 32);
  std::vector<std::uint64_t> offsets;
  offsets.reserve(objects_.size());
  for (const Object& object : objects_) {
    offsets.push_back(out.size());
    if (object.kind == Kind::Scalar) {
      out.insert(out.end(), scalars_.begin() + static_cast<std::ptrdiff_t>(object.begin),
                 scalars_.begin() + static_cast<std::ptrdiff_t>(object.end));
      continue;
    }
    const std::size_t refCount = object.end - object.begin;
    appendMarker(out, object.kind == Kind::Array ? kArray : kDictionary,
                 object.kind == Kind::Array ? refCount : refCount / 2);
    for (std::size_t i = object.begin; i < object.end; ++i) appendBigEndian(out, refs_[i], refWidth);
  }
  const std::uint64_t offsetTable = out.size();
  const unsigned offsetWidth = widthFor(offsetTable);
  for (const std::uint64_t offset : offsets) appendBigEndian(out, offset, offsetWidth);
  out.insert(out.end(), 6, 0);  // unused, then the sort version
  out.push_back(static_cast<std::uint8_t>(offsetWidth));
  out.push_back(static_cast<std::uint8_t>(refWidth));
  appendBigEndian(out, objects_.size(), 8);
  appendBigEndian(out, root, 8);
  appendBigEndian(out, offsetTable, 8);
  return out;
}

}  // namespace kiv::detail
