#include "ZuFoundation/detail/BinaryPlist.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace zu::detail::bplist {
namespace {

constexpr std::uint32_t kReplacementCharacter = 0xFFFD;

// The kind of a marker's high nibble, with the size of one unit of its payload (0: the size is fixed by
// the low nibble).
struct Layout {
  Kind kind;
  std::uint64_t unit;
};

Layout layoutOf(std::uint8_t type, unsigned refWidth) {
  switch (type) {
    case kInteger >> 4:
      return {Kind::Integer, 0};
    case kReal >> 4:
      return {Kind::Real, 0};
    case kDate >> 4:
      return {Kind::Date, 0};
    case kData >> 4:
      return {Kind::Data, 1};
    case kAsciiString >> 4:
      return {Kind::String, 1};
    case kUtf16String >> 4:
      return {Kind::String, 2};
    case 0x8:
      return {Kind::Other, 0};  // a keyed archiver's UID
    case kArray >> 4:
      return {Kind::Array, refWidth};
    case kDictionary >> 4:
      return {Kind::Dictionary, 2ull * refWidth};
    default:
      return {Kind::Invalid, 0};
  }
}

// The payload size of a fixed-size scalar, from its marker's low nibble; 0 when the nibble is not allowed.
std::uint64_t fixedSize(Kind kind, std::uint8_t info) {
  switch (kind) {
    case Kind::Integer:
      return info <= 4 ? std::uint64_t{1} << info : 0;
    case Kind::Real:
    case Kind::Date:
      return info == 2 || info == 3 ? std::uint64_t{1} << info : 0;
    case Kind::Other:
      return info + 1u;
    default:
      return 0;
  }
}

void appendUtf8(std::string& out, std::uint32_t point) {
  if (point < 0x80) {
    out.push_back(static_cast<char>(point));
  } else if (point < 0x800) {
    out.push_back(static_cast<char>(0xC0 | point >> 6));
    out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
  } else if (point < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | point >> 12));
    out.push_back(static_cast<char>(0x80 | (point >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | point >> 18));
    out.push_back(static_cast<char>(0x80 | (point >> 12 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (point >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
  }
}

// Answers whether every unit was paired as it should be (nothing replaced).
bool utf16ToUtf8(const std::uint8_t* units, std::uint64_t count, std::string& out) {
  bool exact = true;
  out.clear();
  out.reserve(count);
  const auto unit = [&](std::uint64_t i) {
    return static_cast<std::uint32_t>(readBigEndian(units + 2 * i, 2));
  };
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint32_t first = unit(i);
    const bool high = first >= 0xD800 && first <= 0xDBFF;
    if (high && i + 1 < count && unit(i + 1) >= 0xDC00 && unit(i + 1) <= 0xDFFF) {
      appendUtf8(out, 0x10000 + ((first - 0xD800) << 10) + (unit(i + 1) - 0xDC00));
      ++i;
    } else {
      const bool unpaired = first >= 0xD800 && first <= 0xDFFF;
      exact = exact && !unpaired;
      appendUtf8(out, unpaired ? kReplacementCharacter : first);
    }
  }
  return exact;
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
}

// A byte above 0x7F, which ASCII does not have, becomes U+FFFD, as the writer would store it.
void asciiToUtf8(std::string_view ascii, std::string& out) {
  out.clear();
  for (const char c : ascii) {
    const auto byte = static_cast<std::uint8_t>(c);
    appendUtf8(out, byte < 0x80 ? byte : kReplacementCharacter);
  }
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

void appendUtf16(Data& out, std::string_view text) {
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

std::uint64_t readBigEndian(const std::uint8_t* at, unsigned width) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = value << 8 | at[i];
  return value;
}

void appendBigEndian(Data& out, std::uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

unsigned widthFor(std::uint64_t value) {
  if (value <= 0xFF) return 1;
  if (value <= 0xFFFF) return 2;
  if (value <= 0xFFFFFFFF) return 4;
  return 8;
}

std::optional<Trailer> readTrailer(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kMagic.size() + kTrailerSize ||
      std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0) {
    return std::nullopt;
  }
  const std::uint8_t* at = bytes.data() + bytes.size() - kTrailerSize;
  const Trailer trailer{at[6], at[7], readBigEndian(at + 8, 8), readBigEndian(at + 16, 8),
                        readBigEndian(at + 24, 8)};
  const std::uint64_t tableRoom = bytes.size() - kTrailerSize;
  const bool valid = trailer.offsetWidth >= 1 && trailer.offsetWidth <= 8 && trailer.refWidth >= 1 &&
                     trailer.refWidth <= 8 && trailer.root < trailer.objectCount &&
                     trailer.offsetTable > kMagic.size() && trailer.offsetTable <= tableRoom &&
                     trailer.objectCount <= (tableRoom - trailer.offsetTable) / trailer.offsetWidth;
  return valid ? std::optional(trailer) : std::nullopt;
}

void appendTable(Data& out, const std::vector<std::uint64_t>& offsets, const Trailer& trailer) {
  out.reserve(out.size() + offsets.size() * trailer.offsetWidth + kTrailerSize);
  for (const std::uint64_t offset : offsets) appendBigEndian(out, offset, trailer.offsetWidth);
  out.insert(out.end(), 6, 0);  // unused, then the sort version
  out.push_back(static_cast<std::uint8_t>(trailer.offsetWidth));
  out.push_back(static_cast<std::uint8_t>(trailer.refWidth));
  appendBigEndian(out, trailer.objectCount, 8);
  appendBigEndian(out, trailer.root, 8);
  appendBigEndian(out, trailer.offsetTable, 8);
}

Object objectAt(const std::uint8_t* at, const std::uint8_t* end, unsigned refWidth) {
  const std::uint8_t* begin = at;
  const std::uint8_t marker = *at++;
  const auto info = static_cast<std::uint8_t>(marker & 0x0F);
  if (marker >> 4 == 0) {
    if (marker == kFalse || marker == kTrue) return {Kind::Boolean, marker, begin, at, 0, at};
    if (marker == 0x00 || marker == 0x0F) return {Kind::Other, marker, begin, at, 0, at};  // null and fill
    return {};
  }
  const Layout layout = layoutOf(static_cast<std::uint8_t>(marker >> 4), refWidth);
  if (layout.kind == Kind::Invalid) return {};
  if (layout.unit == 0) {
    const std::uint64_t size = fixedSize(layout.kind, info);
    if (size == 0 || size > static_cast<std::uint64_t>(end - at)) return {};
    return {layout.kind, marker, begin, at, size, at + size};
  }
  std::uint64_t count = info;
  if (info == 0x0F) {  // the count follows as an integer of 1, 2, 4 or 8 bytes
    if (end - at < 1 || *at >> 4 != kInteger >> 4 || (*at & 0x0F) > 3) return {};
    const unsigned width = 1u << (*at++ & 0x0F);
    if (static_cast<std::uint64_t>(end - at) < width) return {};
    count = readBigEndian(at, width);
    at += width;
  }
  if (count > static_cast<std::uint64_t>(end - at) / layout.unit) return {};
  return {layout.kind, marker, begin, at, count, at + count * layout.unit};
}

Object objectOf(std::span<const std::uint8_t> bytes, const Trailer& trailer, std::uint64_t ref) {
  if (ref >= trailer.objectCount) return {};
  const std::uint64_t offset =
      readBigEndian(bytes.data() + trailer.offsetTable + ref * trailer.offsetWidth, trailer.offsetWidth);
  if (offset < kMagic.size() || offset >= trailer.offsetTable) return {};
  return objectAt(bytes.data() + offset, bytes.data() + trailer.offsetTable, trailer.refWidth);
}

std::optional<std::int64_t> integer(const Object& object) {
  if (object.kind != Kind::Integer) return std::nullopt;
  if (object.count < 16)
    return static_cast<std::int64_t>(readBigEndian(object.payload, static_cast<unsigned>(object.count)));
  // 16 bytes, two's complement: only the sign extension of the lower half may stand in the upper half.
  const std::uint64_t upper = readBigEndian(object.payload, 8);
  const auto lower = static_cast<std::int64_t>(readBigEndian(object.payload + 8, 8));
  if (upper != (lower < 0 ? ~std::uint64_t{0} : 0)) return std::nullopt;
  return lower;
}

double floatingPoint(const Object& object) {
  if (object.count == 4) {
    return double{std::bit_cast<float>(static_cast<std::uint32_t>(readBigEndian(object.payload, 4)))};
  }
  return std::bit_cast<double>(readBigEndian(object.payload, 8));
}

std::string_view text(const Object& string, std::string& buffer) {
  if (string.marker >> 4 == kAsciiString >> 4) {
    const std::string_view ascii(reinterpret_cast<const char*>(string.payload), string.count);
    if (isAscii(ascii)) return ascii;
    asciiToUtf8(ascii, buffer);
  } else {
    utf16ToUtf8(string.payload, string.count, buffer);
  }
  return buffer;
}

bool isExactText(const Object& string) {
  if (string.marker >> 4 == kAsciiString >> 4)
    return isAscii(std::string_view(reinterpret_cast<const char*>(string.payload), string.count));
  std::string decoded;
  return utf16ToUtf8(string.payload, string.count, decoded);
}

void appendMarker(Data& out, std::uint8_t marker, std::uint64_t count) {
  if (count < 15) {
    out.push_back(static_cast<std::uint8_t>(marker | count));
  } else {
    out.push_back(static_cast<std::uint8_t>(marker | 0x0F));
    appendInteger(out, static_cast<std::int64_t>(count));
  }
}

void appendInteger(Data& out, std::int64_t value) {
  const unsigned width = value < 0 ? 8 : widthFor(static_cast<std::uint64_t>(value));
  out.push_back(static_cast<std::uint8_t>(kInteger | std::countr_zero(width)));
  appendBigEndian(out, static_cast<std::uint64_t>(value), width);
}

void appendDouble(Data& out, std::uint8_t marker, double value) {
  out.push_back(static_cast<std::uint8_t>(marker | 3));  // 2^3 bytes
  appendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
}

void appendString(Data& out, std::string_view text) {
  if (isAscii(text)) {
    appendMarker(out, kAsciiString, text.size());
    out.insert(out.end(), text.begin(), text.end());
  } else {
    appendUtf16(out, text);
  }
}

}  // namespace zu::detail::bplist
