#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ZuFoundation/Data.hpp"

// The binary property list format ("bplist00") as its readers and writers share it: the trailer and the
// offset table, objects' markers and counts, big-endian integers, and texts (ASCII, or big-endian UTF-16 when
// they are not ASCII). The report store reads and writes whole object graphs on it, the user-defaults file
// its top-level dictionary. Nothing here allocates but the texts that are not ASCII and what is appended.
namespace zu::detail::bplist {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;

// Markers: the high nibble is the type, the low one a size or a count.
constexpr std::uint8_t kFalse = 0x08;
constexpr std::uint8_t kTrue = 0x09;
constexpr std::uint8_t kInteger = 0x10;
constexpr std::uint8_t kReal = 0x20;
constexpr std::uint8_t kDate = 0x30;
constexpr std::uint8_t kData = 0x40;
constexpr std::uint8_t kAsciiString = 0x50;
constexpr std::uint8_t kUtf16String = 0x60;
constexpr std::uint8_t kArray = 0xA0;
constexpr std::uint8_t kDictionary = 0xD0;

std::uint64_t readBigEndian(const std::uint8_t* at, unsigned width);
void appendBigEndian(Data& out, std::uint64_t value, unsigned width);
/// The smallest of 1, 2, 4 and 8 bytes that holds `value`.
unsigned widthFor(std::uint64_t value);

/// A document's layout, as its trailer gives it.
struct Trailer {
  unsigned offsetWidth;
  unsigned refWidth;
  std::uint64_t objectCount;
  std::uint64_t root;
  std::uint64_t offsetTable;  // where the objects end
};

/// The trailer of `bytes`; nothing when the magic is missing, a width is not 1 to 8 bytes, or the offset
/// table or the root lies outside the document.
std::optional<Trailer> readTrailer(std::span<const std::uint8_t> bytes);
/// Appends the offset table of objects starting at `offsets`, then `trailer`, to `out` (which holds the
/// document from `trailer.offsetTable` on, where the table goes).
void appendTable(Data& out, const std::vector<std::uint64_t>& offsets, const Trailer& trailer);

enum class Kind : std::uint8_t {
  Invalid,
  Boolean,
  Integer,
  Real,
  Date,
  Data,
  String,
  Array,
  Dictionary,
  Other
};

/// One object where it lies, checked to lie within the objects of its document.
struct Object {
  Kind kind = Kind::Invalid;
  std::uint8_t marker = 0;
  const std::uint8_t* begin = nullptr;
  const std::uint8_t* payload = nullptr;
  std::uint64_t count = 0;  // bytes of a scalar, code units of a text, references of a container
  const std::uint8_t* end = nullptr;
};

/// The object whose marker is at `at`, with references of `refWidth` bytes; `Kind::Invalid` when it is
/// malformed or reaches past `end`.
Object objectAt(const std::uint8_t* at, const std::uint8_t* end, unsigned refWidth);

/**
 * The object `ref` of the document `bytes`. `Kind::Invalid` when `ref` is not an object of the document, or
 * its offset, marker or count leads outside the objects: hostile bytes give wrong kinds, never a read out of
 * bounds. Any valid object is read: integers of 1, 2, 4, 8 or 16 bytes, reals and dates of 4 or 8 bytes,
 * ASCII and UTF-16 texts, a keyed archiver's UIDs, null and fill (`Kind::Other`), sets (`Kind::Invalid`).
 */
Object objectOf(std::span<const std::uint8_t> bytes, const Trailer& trailer, std::uint64_t ref);

/// An integer object's value when it fits in 64 signed bits (a 16-byte one only then); an 8-byte one is
/// signed.
std::optional<std::int64_t> integer(const Object& object);
/// A real's or a date's value (a date as seconds since the reference date).
double floatingPoint(const Object& object);
/// The UTF-8 text of a string object: a view into the document for ASCII, else into `buffer` (unpaired
/// UTF-16 surrogates, and bytes above 0x7F in an ASCII string, become U+FFFD).
std::string_view text(const Object& string, std::string& buffer);
/// Whether a string object's text reads without a replacement: no byte above 0x7F in ASCII, no unpaired
/// surrogate in UTF-16.
bool isExactText(const Object& string);

/// Appends a marker with its object count: in the low nibble when below 15, else as an integer that follows.
void appendMarker(Data& out, std::uint8_t marker, std::uint64_t count);
/// Appends an integer: unsigned in 1, 2 or 4 bytes, and in 8 bytes (signed) when negative or larger.
void appendInteger(Data& out, std::int64_t value);
/// Appends a real or a date (by `marker`) of 8 bytes.
void appendDouble(Data& out, std::uint8_t marker, double value);
/// Appends a string object of UTF-8 text (invalid sequences become U+FFFD): ASCII when it is, else UTF-16.
void appendString(Data& out, std::string_view text);

}  // namespace zu::detail::bplist
