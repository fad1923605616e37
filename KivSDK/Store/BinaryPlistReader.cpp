#include "KivSDK/Store/detail/BinaryPlistReader.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kiv::detail {
namespace {

using Kind = BinaryPlistReader::Kind;

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;
constexpr std::uint32_t kReplacementCharacter = 0xFFFD;

std::uint64_t readBigEndian(const std::uint8_t* at, unsigned width) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = value << 8 | at[i];
  return value;
}

// The kind of a marker's high nibble, with the size of one unit of its payload (0: the size is fixed by
// the low nibble).
struct Layout {
  Kind kind;
  std::uint64_t unit;
};

Layout layoutOf(std::uint8_t type, unsigned refWidth) {
  switch (type) {
    case 0x1:
      return {Kind::Integer, 0};
    case 0x2:
      return {Kind::Real, 0};
    case 0x3:
      return {Kind::Date, 0};
    case 0x4:
      return {Kind::Data, 1};
    case 0x5:
      return {Kind::String, 1};  // ASCII
    case 0x6:
      return {Kind::String, 2};  // UTF-16, big-endian
    case 0x8:
      return {Kind::Other, 0};  // a keyed archiver's UID
    case 0xA:
      return {Kind::Array, refWidth};
    case 0xD:
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

void utf16ToUtf8(const std::uint8_t* units, std::uint64_t count, std::string& out) {
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
      appendUtf8(out, first >= 0xD800 && first <= 0xDFFF ? kReplacementCharacter : first);
    }
  }
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

}  // namespace

BinaryPlistReader::Ref BinaryPlistReader::Refs::operator[](std::uint64_t index) const {
  return readBigEndian(at_ + index * width_, width_);
}

std::optional<BinaryPlistReader> BinaryPlistReader::open(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kMagic.size() + kTrailerSize ||
      std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0) {
    return std::nullopt;
  }
  const std::uint8_t* trailer = bytes.data() + bytes.size() - kTrailerSize;
  const unsigned offsetWidth = trailer[6];
  const unsigned refWidth = trailer[7];
  const std::uint64_t objectCount = readBigEndian(trailer + 8, 8);
  const Ref root = readBigEndian(trailer + 16, 8);
  const std::uint64_t offsetTable = readBigEndian(trailer + 24, 8);
  const std::uint64_t tableRoom = bytes.size() - kTrailerSize;
  const bool valid = offsetWidth >= 1 && offsetWidth <= 8 && refWidth >= 1 && refWidth <= 8 &&
                     root < objectCount && offsetTable > kMagic.size() && offsetTable <= tableRoom &&
                     objectCount <= (tableRoom - offsetTable) / offsetWidth;
  if (!valid) return std::nullopt;
  return BinaryPlistReader(bytes, offsetTable, offsetWidth, refWidth, objectCount, root);
}

// Decodes the marker and count of the object `ref` names and checks that its payload lies in the object area.
BinaryPlistReader::Object BinaryPlistReader::object(Ref ref) const {
  if (ref >= objectCount_) return {};
  const std::uint64_t offset = readBigEndian(bytes_.data() + objectsEnd_ + ref * offsetWidth_, offsetWidth_);
  if (offset < kMagic.size() || offset >= objectsEnd_) return {};
  const std::uint8_t* at = bytes_.data() + offset;
  const std::uint8_t* end = bytes_.data() + objectsEnd_;
  const std::uint8_t marker = *at++;
  const auto info = static_cast<std::uint8_t>(marker & 0x0F);
  if (marker >> 4 == 0) {
    if (marker == 0x08 || marker == 0x09) return {Kind::Boolean, marker, at, 0};
    return {marker == 0x00 || marker == 0x0F ? Kind::Other : Kind::Invalid};  // null and fill
  }
  const Layout layout = layoutOf(static_cast<std::uint8_t>(marker >> 4), refWidth_);
  if (layout.kind == Kind::Invalid) return {};
  if (layout.unit == 0) {
    const std::uint64_t size = fixedSize(layout.kind, info);
    if (size == 0 || size > static_cast<std::uint64_t>(end - at)) return {};
    return {layout.kind, marker, at, size};
  }
  std::uint64_t count = info;
  if (info == 0x0F) {  // the count follows as an integer of 1, 2, 4 or 8 bytes
    if (end - at < 1 || *at >> 4 != 0x1 || (*at & 0x0F) > 3) return {};
    const unsigned width = 1u << (*at++ & 0x0F);
    if (static_cast<std::uint64_t>(end - at) < width) return {};
    count = readBigEndian(at, width);
    at += width;
  }
  if (count > static_cast<std::uint64_t>(end - at) / layout.unit) return {};
  return {layout.kind, marker, at, count};
}

std::optional<bool> BinaryPlistReader::boolean(Ref ref) const {
  const Object found = object(ref);
  if (found.kind != Kind::Boolean) return std::nullopt;
  return found.marker == 0x09;
}

std::optional<std::int64_t> BinaryPlistReader::integer(Ref ref) const {
  const Object found = object(ref);
  if (found.kind != Kind::Integer) return std::nullopt;
  if (found.count < 16)
    return static_cast<std::int64_t>(readBigEndian(found.payload, static_cast<unsigned>(found.count)));
  // 16 bytes, two's complement: only the sign extension of the lower half may stand in the upper half.
  const std::uint64_t upper = readBigEndian(found.payload, 8);
  const auto lower = static_cast<std::int64_t>(readBigEndian(found.payload + 8, 8));
  if (upper != (lower < 0 ? ~std::uint64_t{0} : 0)) return std::nullopt;
  return lower;
}

std::optional<double> BinaryPlistReader::floatingPoint(const Object& object) const {
  if (object.count == 4) {
    return double{std::bit_cast<float>(static_cast<std::uint32_t>(readBigEndian(object.payload, 4)))};
  }
  return std::bit_cast<double>(readBigEndian(object.payload, 8));
}

std::optional<double> BinaryPlistReader::real(Ref ref) const {
  const Object found = object(ref);
  return found.kind == Kind::Real ? floatingPoint(found) : std::nullopt;
}

std::optional<double> BinaryPlistReader::date(Ref ref) const {
  const Object found = object(ref);
  return found.kind == Kind::Date ? floatingPoint(found) : std::nullopt;
}

std::optional<std::string_view> BinaryPlistReader::text(Ref ref, std::string& buffer) const {
  const Object found = object(ref);
  if (found.kind != Kind::String) return std::nullopt;
  if (found.marker >> 4 == 0x5) {
    const std::string_view ascii(reinterpret_cast<const char*>(found.payload), found.count);
    if (isAscii(ascii)) return ascii;
    asciiToUtf8(ascii, buffer);
  } else {
    utf16ToUtf8(found.payload, found.count, buffer);
  }
  return std::string_view(buffer);
}

std::optional<BinaryPlistReader::Refs> BinaryPlistReader::array(Ref ref) const {
  const Object found = object(ref);
  if (found.kind != Kind::Array) return std::nullopt;
  return Refs(found.payload, found.count, refWidth_);
}

std::optional<BinaryPlistReader::Dictionary> BinaryPlistReader::dictionary(Ref ref) const {
  const Object found = object(ref);
  if (found.kind != Kind::Dictionary) return std::nullopt;
  return Dictionary{Refs(found.payload, found.count, refWidth_),
                    Refs(found.payload + found.count * refWidth_, found.count, refWidth_)};
}

}  // namespace kiv::detail
