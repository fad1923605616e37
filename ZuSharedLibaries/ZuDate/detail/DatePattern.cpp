#include "ZuDate/detail/DatePattern.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>

#include "ZuFoundation/FatalError.hpp"

namespace zu::detail {
namespace {

// en_GB's names: its September abbreviation is "Sept", not "Sep".
constexpr std::array<std::string_view, 12> kMonthAbbreviations = {"Jan", "Feb", "Mar",  "Apr", "May", "Jun",
                                                                  "Jul", "Aug", "Sept", "Oct", "Nov", "Dec"};
// Weekdays are numbered from Monday = 0.
constexpr std::array<std::string_view, 7> kWeekdayAbbreviations = {"Mon", "Tue", "Wed", "Thu",
                                                                   "Fri", "Sat", "Sun"};
constexpr std::array<std::string_view, 7> kWeekdays = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                                       "Friday", "Saturday", "Sunday"};

struct FieldSymbol {
  char letter;
  std::size_t count;
  DateField field;
};

constexpr std::array kFieldSymbols = {
    FieldSymbol{'y', 4, DateField::year},
    FieldSymbol{'y', 2, DateField::twoDigitYear},
    FieldSymbol{'M', 2, DateField::month},
    FieldSymbol{'M', 3, DateField::monthAbbreviation},
    FieldSymbol{'d', 2, DateField::day},
    FieldSymbol{'H', 2, DateField::hour},
    FieldSymbol{'m', 2, DateField::minute},
    FieldSymbol{'s', 2, DateField::second},
    FieldSymbol{'S', 3, DateField::millisecond},
    FieldSymbol{'X', 3, DateField::isoOffset},
    FieldSymbol{'E', 3, DateField::weekdayAbbreviation},
    FieldSymbol{'E', 4, DateField::weekday},
};

constexpr std::int64_t kMillisecondsPerDay = 86'400'000;

constexpr std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}
constexpr std::int64_t floorMod(std::int64_t a, std::int64_t b) { return a - floorDiv(a, b) * b; }

// Days from 1970-01-01 in the proleptic Gregorian calendar (H. Hinnant's days_from_civil); no time zone is
// involved, unlike mktime.
constexpr std::int64_t daysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2;
  const std::int64_t era = floorDiv(year, 400);
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

struct CivilDate {
  int year;
  int month;
  int day;
};

// The inverse of daysFromCivil, for the years 0001 to 9999 that formatting is limited to.
constexpr CivilDate civilFromDays(std::int64_t days) {
  days += 719468;
  const std::int64_t era = floorDiv(days, 146097);
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;  // March = 0
  const auto day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  const auto month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  return {static_cast<int>(yearOfEra + era * 400 + (month <= 2)), month, day};
}

static_assert(daysFromCivil(1970, 1, 1) == 0);
static_assert(civilFromDays(daysFromCivil(2020, 2, 29)).day == 29);

constexpr int weekdayOf(std::int64_t daysSince1970) {
  return static_cast<int>(floorMod(daysSince1970 + 3, 7));  // 1970-01-01 was a Thursday
}

constexpr bool isLeapYear(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

constexpr int daysInMonth(int year, int month) {
  constexpr std::array<int, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[static_cast<std::size_t>(month - 1)];
}

constexpr std::int64_t kFirstMillisecond = daysFromCivil(1, 1, 1) * kMillisecondsPerDay;
constexpr std::int64_t kLastMillisecond = daysFromCivil(10000, 1, 1) * kMillisecondsPerDay - 1;
// Well beyond year 9999 yet far from overflowing 64 bits once in microseconds.
constexpr double kSecondsLimit = 1e12;

std::optional<std::int64_t> millisecondsSince1970(double seconds) {
  if (!(std::abs(seconds) <= kSecondsLimit)) return std::nullopt;  // also NaN and infinities
  // A time that is the double nearest a whole millisecond, as a parsed text gives, is that millisecond, also
  // where doubles are too coarse for microseconds (beyond the year 2106); any other is cut to its
  // millisecond.
  const std::int64_t nearest = std::llround(seconds * 1e3);
  const std::int64_t milliseconds = static_cast<double>(nearest) / 1000.0 == seconds
                                        ? nearest
                                        : floorDiv(std::llround(seconds * 1e6), 1000);
  if (milliseconds < kFirstMillisecond || milliseconds > kLastMillisecond) return std::nullopt;
  return milliseconds;
}

std::int64_t clampedMillisecondsSince1970(double seconds) {
  if (const auto milliseconds = millisecondsSince1970(seconds)) return *milliseconds;
  return seconds > 0 ? kLastMillisecond : kFirstMillisecond;
}

/// GMT calendar fields; the defaults are those of a parsed text that lacks the field.
struct Fields {
  int year = 1970;
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
  std::optional<int> weekday;  // always known when formatting; parsed texts need not name it
  int offsetMinutes = 0;
};

Fields fieldsOf(std::int64_t millisecondsSince1970) {
  const std::int64_t days = floorDiv(millisecondsSince1970, kMillisecondsPerDay);
  const auto millisecondOfDay = static_cast<int>(millisecondsSince1970 - days * kMillisecondsPerDay);
  const CivilDate date = civilFromDays(days);
  Fields fields;
  fields.year = date.year;
  fields.month = date.month;
  fields.day = date.day;
  fields.hour = millisecondOfDay / 3'600'000;
  fields.minute = millisecondOfDay / 60'000 % 60;
  fields.second = millisecondOfDay / 1000 % 60;
  fields.millisecond = millisecondOfDay % 1000;
  fields.weekday = weekdayOf(days);
  return fields;
}

void appendNumber(std::string& text, int value, int width) {
  const std::string digits = std::to_string(value);
  text.append(static_cast<std::size_t>(std::max(0, width - static_cast<int>(digits.size()))), '0');
  text += digits;
}

template <std::size_t N>
std::string_view nameAt(const std::array<std::string_view, N>& names, int index) {
  return names[static_cast<std::size_t>(index)];
}

void formatToken(std::string& text, const DatePatternToken& token, const Fields& fields) {
  switch (token.field) {
    case DateField::literal:
      text += token.literal;
      return;
    case DateField::year:
      return appendNumber(text, fields.year, 4);
    case DateField::twoDigitYear:
      return appendNumber(text, fields.year % 100, 2);
    case DateField::month:
      return appendNumber(text, fields.month, 2);
    case DateField::monthAbbreviation:
      text += nameAt(kMonthAbbreviations, fields.month - 1);
      return;
    case DateField::day:
      return appendNumber(text, fields.day, 2);
    case DateField::hour:
      return appendNumber(text, fields.hour, 2);
    case DateField::minute:
      return appendNumber(text, fields.minute, 2);
    case DateField::second:
      return appendNumber(text, fields.second, 2);
    case DateField::millisecond:
      return appendNumber(text, fields.millisecond, 3);
    case DateField::isoOffset:  // texts are always in GMT
      text += 'Z';
      return;
    case DateField::weekdayAbbreviation:
      text += nameAt(kWeekdayAbbreviations, *fields.weekday);
      return;
    case DateField::weekday:
      text += nameAt(kWeekdays, *fields.weekday);
      return;
  }
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  return std::ranges::equal(a, b, {}, lower, lower);
}

/// Reads a text from left to right; every read either consumes what it matched or fails and leaves the rest.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }

  bool literal(std::string_view expected) {
    if (!rest_.starts_with(expected)) return false;
    rest_.remove_prefix(expected.size());
    return true;
  }

  /// Exactly `width` ASCII digits forming a number from `min` to `max`.
  bool number(int width, int min, int max, int& value) {
    const auto count = static_cast<std::size_t>(width);
    if (rest_.size() < count) return false;
    int result = 0;
    for (const char c : rest_.substr(0, count)) {
      if (c < '0' || c > '9') return false;
      result = result * 10 + (c - '0');
    }
    if (result < min || result > max) return false;
    rest_.remove_prefix(count);
    value = result;
    return true;
  }

  /// One of `names`, whatever its case; `index` receives its position. No name is a prefix of another.
  template <std::size_t N>
  bool name(const std::array<std::string_view, N>& names, int& index) {
    for (std::size_t i = 0; i < N; ++i) {
      if (equalsIgnoringCase(rest_.substr(0, names[i].size()), names[i])) {
        rest_.remove_prefix(names[i].size());
        index = static_cast<int>(i);
        return true;
      }
    }
    return false;
  }

  /// "Z", or a sign, two digits of hours, a colon and two digits of minutes.
  bool isoOffset(int& minutes) {
    if (literal("Z")) {
      minutes = 0;
      return true;
    }
    const int sign = literal("+") ? 1 : literal("-") ? -1 : 0;
    int hours = 0;
    int offsetMinutes = 0;
    if (sign == 0 || !number(2, 0, 23, hours) || !literal(":") || !number(2, 0, 59, offsetMinutes)) {
      return false;
    }
    minutes = sign * (hours * 60 + offsetMinutes);
    return true;
  }

 private:
  std::string_view rest_;
};

// The year ending in `twoDigits` among the hundred years that start 80 years before `currentYear`.
int windowedYear(int twoDigits, int currentYear) {
  const int firstYear = currentYear - 80;
  return firstYear + static_cast<int>(floorMod(twoDigits - firstYear, 100));
}

bool scanToken(Scanner& scanner, const DatePatternToken& token, int currentYear, Fields& fields) {
  switch (token.field) {
    case DateField::literal:
      return scanner.literal(token.literal);
    case DateField::year:
      return scanner.number(4, 1, 9999, fields.year);
    case DateField::twoDigitYear: {
      int twoDigits = 0;
      if (!scanner.number(2, 0, 99, twoDigits)) return false;
      fields.year = windowedYear(twoDigits, currentYear);
      return true;
    }
    case DateField::month:
      return scanner.number(2, 1, 12, fields.month);
    case DateField::monthAbbreviation: {
      int index = 0;
      if (!scanner.name(kMonthAbbreviations, index)) return false;
      fields.month = index + 1;
      return true;
    }
    case DateField::day:
      return scanner.number(2, 1, 31, fields.day);  // checked against the month later
    case DateField::hour:
      return scanner.number(2, 0, 23, fields.hour);
    case DateField::minute:
      return scanner.number(2, 0, 59, fields.minute);
    case DateField::second:
      return scanner.number(2, 0, 59, fields.second);
    case DateField::millisecond:
      return scanner.number(3, 0, 999, fields.millisecond);
    case DateField::isoOffset:
      return scanner.isoOffset(fields.offsetMinutes);
    case DateField::weekdayAbbreviation:
    case DateField::weekday: {
      int index = 0;
      if (!scanner.name(token.field == DateField::weekday ? kWeekdays : kWeekdayAbbreviations, index)) {
        return false;
      }
      fields.weekday = index;
      return true;
    }
  }
  return false;
}

DateField fieldFor(char letter, std::size_t count) {
  const auto symbol = std::ranges::find_if(
      kFieldSymbols, [&](const FieldSymbol& s) { return s.letter == letter && s.count == count; });
  if (symbol == kFieldSymbols.end()) {
    fatalError("Unsupported date pattern field " + std::string(count, letter));
  }
  return symbol->field;
}

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

DatePattern::DatePattern(std::string_view pattern) {
  std::size_t i = 0;
  while (i < pattern.size()) {
    const char c = pattern[i];
    if (c == '\'') {
      if (pattern.substr(i + 1).starts_with('\'')) {  // '' outside quotes is a quote
        appendLiteral("'");
        i += 2;
        continue;
      }
      // Quoted text runs to the next lone quote; '' inside it is a quote too.
      std::string quoted;
      for (++i;; ++i) {
        if (i >= pattern.size()) fatalError("Unterminated quote in date pattern " + std::string(pattern));
        if (pattern[i] != '\'') {
          quoted += pattern[i];
        } else if (pattern.substr(i + 1).starts_with('\'')) {
          quoted += '\'';
          ++i;
        } else {
          break;
        }
      }
      appendLiteral(quoted);
      ++i;
    } else if (isAsciiLetter(c)) {
      const std::size_t end = std::min(pattern.find_first_not_of(c, i), pattern.size());
      tokens_.push_back({fieldFor(c, end - i), {}});
      i = end;
    } else {
      appendLiteral(pattern.substr(i, 1));
      ++i;
    }
  }
}

void DatePattern::appendLiteral(std::string_view text) {
  if (tokens_.empty() || tokens_.back().field != DateField::literal) {
    tokens_.push_back({DateField::literal, {}});
  }
  tokens_.back().literal += text;
}

std::string DatePattern::format(double secondsSince1970) const {
  const Fields fields = fieldsOf(clampedMillisecondsSince1970(secondsSince1970));
  std::string text;
  for (const DatePatternToken& token : tokens_) formatToken(text, token, fields);
  return text;
}

std::optional<double> DatePattern::parse(std::string_view text, int currentYear) const {
  Scanner scanner(text);
  Fields fields;
  for (const DatePatternToken& token : tokens_) {
    if (!scanToken(scanner, token, currentYear, fields)) return std::nullopt;
  }
  if (!scanner.atEnd() || fields.day > daysInMonth(fields.year, fields.month)) return std::nullopt;

  const std::int64_t days = daysFromCivil(fields.year, fields.month, fields.day);
  if (fields.weekday && *fields.weekday != weekdayOf(days)) return std::nullopt;
  const std::int64_t secondOfDay =
      (fields.hour * 60 + fields.minute - fields.offsetMinutes) * 60 + fields.second;
  const std::int64_t milliseconds = days * kMillisecondsPerDay + secondOfDay * 1000 + fields.millisecond;
  // Dividing the exact integer gives the double nearest the decimal text.
  return static_cast<double>(milliseconds) / 1000.0;
}

bool isFormattable(double secondsSince1970) { return millisecondsSince1970(secondsSince1970).has_value(); }

int gmtYear(double secondsSince1970) { return fieldsOf(clampedMillisecondsSince1970(secondsSince1970)).year; }

}  // namespace zu::detail
