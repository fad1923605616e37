#include "AnyCodable/detail/JSONReader.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Why a reader of our own: on a typical report answer (655 KB, 2,000 files), with a warm heap, building a
// library's tree and copying it into `AnyCodable` took 9 ms and this reader takes 0.9 ms. A SIMD parser's
// tape plus the same copy took 0.7 ms: its lead is small beside the values' own allocations, which every
// reader pays, and it would bring a second reader (it refuses the integers past 64 bits that we read as
// doubles) and a shared library that every host of this static SDK would have to link.

namespace zu::detail {
namespace {

constexpr std::uint64_t kMostNegativeMagnitude = std::uint64_t{1} << 63;
constexpr double kTwoTo63 = 0x1p63;
constexpr double kTwoTo64 = 0x1p64;

// Bytes that stand for themselves inside a string: printable ASCII other than the quote and the backslash.
constexpr std::array<bool, 256> kPlainStringBytes = [] {
  std::array<bool, 256> plain{};
  for (int byte = 0x20; byte < 0x80; ++byte) plain[byte] = byte != '"' && byte != '\\';
  return plain;
}();

struct ReadFailure {
  std::string debugDescription;
};

// The high bit of each of the eight bytes at `bytes` that is not plain in a string: a quote, a backslash, a
// control character or a byte of a non-ASCII character. A flag may also stand above the first true one (a
// borrow carries into it), never below, so the lowest flag marks the first byte that is not plain.
std::uint64_t specialBytes(const std::uint8_t* bytes) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  const auto below = [&](std::uint64_t value, std::uint8_t bound) {
    return (value - kOnes * bound) & ~value;
  };
  return (below(word ^ (kOnes * '"'), 1) | below(word ^ (kOnes * '\\'), 1) | below(word, 0x20) | word) &
         kHighBits;
}

bool isDigit(std::uint8_t byte) { return byte >= '0' && byte <= '9'; }

// A number that is whole and fits a signed 64-bit integer is an Int, a larger whole one a UInt, any other a
// Double; -0.0 is the Int 0.
AnyCodable numberValue(double value) {
  if (std::trunc(value) != value) return value;
  if (value >= -kTwoTo63 && value < kTwoTo63) return static_cast<long long>(value);
  if (value >= 0 && value < kTwoTo64) return static_cast<unsigned long long>(value);
  return value;
}

// Whether the decimal number spelled by `text` (JSON's number grammar) is at least 1 in magnitude: its
// first significant digit stands at or left of the units place. Tells an overflow from an underflow.
bool isAtLeastOne(std::string_view text) {
  const std::size_t mantissaEnd = std::min(text.find_first_of("eE"), text.size());
  const std::string_view mantissa = text.substr(0, mantissaEnd);
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const std::size_t firstSignificant = mantissa.find_first_of("123456789");
  if (firstSignificant == std::string_view::npos) return false;
  // The power of ten of the first significant digit, before the exponent is applied.
  long long power = firstSignificant < point
                        ? static_cast<long long>(point - firstSignificant) - 1
                        : static_cast<long long>(point) - static_cast<long long>(firstSignificant);
  if (mantissaEnd == text.size()) return power >= 0;
  std::string_view exponent = text.substr(mantissaEnd + 1);
  const bool negativeExponent = exponent.front() == '-';
  if (exponent.front() == '-' || exponent.front() == '+') exponent.remove_prefix(1);
  // Past this, no mantissa a document can hold moves the first digit back across the units place.
  constexpr long long kSaturated = 1LL << 50;
  long long magnitude = 0;
  for (char digit : exponent) {
    if (magnitude < kSaturated) magnitude = magnitude * 10 + (digit - '0');
  }
  power += negativeExponent ? -magnitude : magnitude;
  return power >= 0;
}

void appendUtf8(std::string& text, char32_t codePoint) {
  if (codePoint < 0x80) {
    text += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    text += static_cast<char>(0xC0 | (codePoint >> 6));
    text += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    text += static_cast<char>(0xE0 | (codePoint >> 12));
    text += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    text += static_cast<char>(0xF0 | (codePoint >> 18));
    text += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    text += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}

// The elements of `pending` from `first` on, moved into a vector of their own and taken off `pending`.
template <class Item>
std::vector<Item> takeFrom(std::vector<Item>& pending, std::size_t first) {
  const auto begin = pending.begin() + static_cast<std::ptrdiff_t>(first);
  std::vector<Item> taken(std::make_move_iterator(begin), std::make_move_iterator(pending.end()));
  pending.erase(begin, pending.end());
  return taken;
}

/**
 * A recursive-descent reader over the bytes. Elements and members of the containers still open wait on two
 * shared stacks, so that each finished container is allocated once, at its exact size. A failure throws
 * `ReadFailure`, caught by `readJSON`.
 */
class Reader {
 public:
  Reader(const Data& text, int maximumDepth)
      : begin_(text.data()), at_(text.data()), end_(text.data() + text.size()), maximumDepth_(maximumDepth) {}

  AnyCodable document() {
    skipPastText("\xEF\xBB\xBF");  // a UTF-8 byte order mark
    AnyCodable value = readValue(0);
    skipWhitespace();
    if (at_ != end_) fail("Garbage at end");
    return value;
  }

 private:
  using Entry = AnyCodable::Dictionary::Entry;

  AnyCodable readValue(int depth) {
    skipWhitespace();
    if (at_ == end_) fail("Unexpected end of data");
    switch (*at_) {
      case '[':
        return readArray(depth + 1);
      case '{':
        return readDictionary(depth + 1);
      case '"':
        return readString();
      case 't':
        return readLiteral("true", true);
      case 'f':
        return readLiteral("false", false);
      case 'n':
        return readLiteral("null", AnyCodable());
      default:
        if (*at_ == '-' || isDigit(*at_)) return readNumber();
        fail("Invalid value");
    }
  }

  AnyCodable readArray(int depth) {
    enter(depth);
    const std::size_t first = elements_.size();
    if (!skipPast(']')) {
      do {
        elements_.push_back(readValue(depth));
      } while (skipPast(','));
      expect(']', "Expected ',' or ']' after an array element");
    }
    return takeFrom(elements_, first);
  }

  AnyCodable readDictionary(int depth) {
    enter(depth);
    const std::size_t first = members_.size();
    if (!skipPast('}')) {
      do {
        skipWhitespace();
        if (at_ == end_ || *at_ != '"') fail("Expected a string key");
        std::string key = readString();
        expect(':', "Expected ':' after a dictionary key");
        members_.emplace_back(std::move(key), readValue(depth));
      } while (skipPast(','));
      expect('}', "Expected ',' or '}' after a dictionary value");
    }
    return AnyCodable::Dictionary::fromEntries(takeFrom(members_, first));
  }

  // Steps into a container whose opening bracket is under the cursor.
  void enter(int depth) {
    if (depth > maximumDepth_) {
      throw ReadFailure{"JSON nested deeper than " + std::to_string(maximumDepth_) + " levels"};
    }
    ++at_;
  }

  std::string readString() {
    ++at_;  // the opening quote
    std::string text(skipPlainBytes());
    while (at_ == end_ || *at_ != '"') {
      readSpecialCharacter(text);
      text += skipPlainBytes();
    }
    ++at_;  // the closing quote
    return text;
  }

  // The run of bytes that stand for themselves, from the cursor on; eight bytes a step where it can.
  std::string_view skipPlainBytes() {
    const std::uint8_t* run = at_;
    if constexpr (std::endian::native == std::endian::little) {
      for (; end_ - at_ >= 8; at_ += 8) {
        if (const std::uint64_t special = specialBytes(at_)) {
          at_ += std::countr_zero(special) / 8;
          break;
        }
      }
    }
    while (at_ != end_ && kPlainStringBytes[*at_]) ++at_;
    return {reinterpret_cast<const char*>(run), static_cast<std::size_t>(at_ - run)};
  }

  // An escape sequence or a non-ASCII character, whichever is under the cursor.
  void readSpecialCharacter(std::string& text) {
    if (at_ == end_) fail("Unterminated string");
    if (*at_ == '\\') {
      readEscape(text);
    } else if (*at_ < 0x20) {
      fail("Unescaped control character in a string");
    } else {
      readUtf8Sequence(text);
    }
  }

  void readEscape(std::string& text) {
    ++at_;  // the backslash
    if (at_ == end_) fail("Unterminated string");
    const char escaped = static_cast<char>(*at_++);
    switch (escaped) {
      case '"':
      case '\\':
      case '/':
        text += escaped;
        return;
      case 'b':
        text += '\b';
        return;
      case 'f':
        text += '\f';
        return;
      case 'n':
        text += '\n';
        return;
      case 'r':
        text += '\r';
        return;
      case 't':
        text += '\t';
        return;
      case 'u':
        return appendUtf8(text, readUnicodeEscape());
      default:
        --at_;
        fail("Invalid escape sequence");
    }
  }

  // The code point of a \u escape whose "\u" has been read, with its low surrogate when it is a high one.
  char32_t readUnicodeEscape() {
    const char32_t unit = readHexQuad();
    if (unit >= 0xDC00 && unit <= 0xDFFF) fail("Unpaired UTF-16 surrogate");
    if (unit < 0xD800 || unit > 0xDBFF) return unit;
    if (end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') fail("Unpaired UTF-16 surrogate");
    at_ += 2;
    const char32_t low = readHexQuad();
    if (low < 0xDC00 || low > 0xDFFF) fail("Unpaired UTF-16 surrogate");
    return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
  }

  char32_t readHexQuad() {
    char32_t value = 0;
    for (int i = 0; i < 4; ++i, ++at_) {
      if (at_ == end_) fail("Unterminated string");
      const std::uint8_t byte = *at_;
      const int digit = isDigit(byte)                                  ? byte - '0'
                        : (byte | 0x20) >= 'a' && (byte | 0x20) <= 'f' ? (byte | 0x20) - 'a' + 10
                                                                       : -1;
      if (digit < 0) fail("Invalid \\u escape");
      value = value << 4 | static_cast<char32_t>(digit);
    }
    return value;
  }

  // Copies one multi-byte UTF-8 character, refusing overlong forms, surrogates and code points past U+10FFFF.
  void readUtf8Sequence(std::string& text) {
    const std::uint8_t lead = *at_;
    int length = 0;
    std::uint8_t lowest = 0x80;
    std::uint8_t highest = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) lowest = 0xA0;
      if (lead == 0xED) highest = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) lowest = 0x90;
      if (lead == 0xF4) highest = 0x8F;
    } else {
      fail("Invalid UTF-8");
    }
    if (end_ - at_ < length || at_[1] < lowest || at_[1] > highest) fail("Invalid UTF-8");
    for (int i = 2; i < length; ++i) {
      if (at_[i] < 0x80 || at_[i] > 0xBF) fail("Invalid UTF-8");
    }
    text.append(reinterpret_cast<const char*>(at_), length);
    at_ += length;
  }

  AnyCodable readNumber() {
    const std::uint8_t* start = at_;
    const bool negative = *at_ == '-';
    if (negative) ++at_;
    if (at_ == end_ || !isDigit(*at_)) fail("Invalid number");
    std::uint64_t magnitude = 0;
    bool fitsInteger = true;
    if (*at_ == '0') {
      ++at_;
    } else {
      for (; at_ != end_ && isDigit(*at_); ++at_) {
        const std::uint64_t digit = *at_ - '0';
        if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) fitsInteger = false;
        magnitude = magnitude * 10 + digit;
      }
    }
    if (skipPastByte('.')) {
      fitsInteger = false;
      readDigits();
    }
    if (skipPastByte('e') || skipPastByte('E')) {
      fitsInteger = false;
      if (!skipPastByte('+')) skipPastByte('-');
      readDigits();
    }
    if (fitsInteger && !negative) {
      if (magnitude <= std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
        return static_cast<long long>(magnitude);
      }
      return static_cast<unsigned long long>(magnitude);
    }
    if (fitsInteger && magnitude <= kMostNegativeMagnitude) return static_cast<long long>(0 - magnitude);
    return numberValue(readDouble(start));
  }

  void readDigits() {
    if (at_ == end_ || !isDigit(*at_)) fail("Invalid number");
    while (at_ != end_ && isDigit(*at_)) ++at_;
  }

  // The double of the number text from `start` to the cursor; one too large for a double fails, one too
  // small for it is zero.
  double readDouble(const std::uint8_t* start) const {
    const std::string_view text(reinterpret_cast<const char*>(start), static_cast<std::size_t>(at_ - start));
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc()) return value;
    if (isAtLeastOne(text)) fail("Number " + std::string(text) + " is not representable as a double");
    return text.front() == '-' ? -0.0 : 0.0;
  }

  AnyCodable readLiteral(std::string_view word, AnyCodable value) {
    if (!skipPastText(word)) fail("Invalid value");
    return value;
  }

  void skipWhitespace() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
  }

  // Skips `text` when the bytes under the cursor spell it.
  bool skipPastText(std::string_view text) {
    if (static_cast<std::size_t>(end_ - at_) < text.size() ||
        std::memcmp(at_, text.data(), text.size()) != 0) {
      return false;
    }
    at_ += text.size();
    return true;
  }

  bool skipPastByte(std::uint8_t byte) {
    if (at_ == end_ || *at_ != byte) return false;
    ++at_;
    return true;
  }

  // Skips whitespace, then `byte` when it is next.
  bool skipPast(std::uint8_t byte) {
    skipWhitespace();
    return skipPastByte(byte);
  }

  void expect(std::uint8_t byte, const char* failure) {
    if (!skipPast(byte)) fail(failure);
  }

  [[noreturn]] void fail(const std::string& what) const {
    const auto lineStart =
        std::find(std::make_reverse_iterator(at_), std::make_reverse_iterator(begin_), std::uint8_t{'\n'});
    const auto line = std::count(begin_, at_, std::uint8_t{'\n'}) + 1;
    const auto column = std::distance(lineStart.base(), at_) + 1;
    throw ReadFailure{what + " around line " + std::to_string(line) + ", column " + std::to_string(column) +
                      "."};
  }

  const std::uint8_t* begin_;
  const std::uint8_t* at_;
  const std::uint8_t* end_;
  const int maximumDepth_;
  std::vector<AnyCodable> elements_;
  std::vector<Entry> members_;
};

}  // namespace

Result<AnyCodable> readJSON(const Data& text, int maximumDepth) {
  try {
    return Reader(text, maximumDepth).document();
  } catch (ReadFailure& failure) {
    return Error(std::string(Error::cocoaDomain), CocoaError::propertyListReadCorrupt,
                 {{std::string(Error::debugDescriptionKey), std::move(failure.debugDescription)}});
  }
}

}  // namespace zu::detail
