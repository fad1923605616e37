#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zu::detail {

/// What one piece of a date pattern stands for.
enum class DateField {
  literal,              ///< text written and matched as it is
  year,                 ///< yyyy
  twoDigitYear,         ///< yy
  month,                ///< MM
  monthAbbreviation,    ///< MMM: "Jan" ... "Sept" ... "Dec"
  day,                  ///< dd
  hour,                 ///< HH, 00 to 23
  minute,               ///< mm
  second,               ///< ss
  millisecond,          ///< SSS
  isoOffset,            ///< XXX: "Z", "+02:00", "-05:30"
  weekdayAbbreviation,  ///< EEE: "Mon" ... "Sun"
  weekday,              ///< EEEE: "Monday" ... "Sunday"
};

/// One piece of a compiled pattern.
struct DatePatternToken {
  DateField field;
  std::string literal;  ///< only for `DateField::literal`
};

/**
 * A date pattern in Unicode date field notation, limited to the fields the SDK's fixed patterns use (see
 * `DateField`). Text between single quotes is literal ("''" is a quote), and so is every character that is
 * not an ASCII letter.
 *
 * Texts are in GMT, with the English month and weekday names of the en_GB locale, so they never depend on the
 * machine's time zone or language. Parsing is strict: the whole text must match; each number must have
 * exactly the pattern's digits and lie in range; the day must exist in its month; a weekday name must agree
 * with the date. Names match without regard to case. Fields the pattern lacks default to 1970-01-01
 * 00:00:00.000 GMT, so "HH:mm:ss" parses to seconds since midnight.
 *
 * @par Thread Safety
 * A pattern is immutable once made: any number of threads may format and parse with it at once.
 */
class DatePattern {
 public:
  /// Stops the program on a letter, letter count or quote that the engine does not know: the SDK's patterns
  /// are fixed in code, so that is a programming error.
  explicit DatePattern(std::string_view pattern);

  /**
   * Seconds since 1970-01-01 00:00:00 UTC written with the pattern, in GMT ("XXX" is always "Z").
   *
   * Fractions of a millisecond are cut off, never rounded up (59.9996 s is "59.999", not a minute later),
   * after rounding to the microsecond so that a double's binary noise (0.123 held as 0.12299999...) does not
   * lose a millisecond. Instants before 0001-01-01 00:00:00.000 or after 9999-12-31 23:59:59.999 are written
   * as the nearer of those two bounds, NaN as the first; see `isFormattable`.
   */
  std::string format(double secondsSince1970) const;

  /**
   * The text parsed as seconds since 1970-01-01 00:00:00 UTC; nothing when it does not match.
   *
   * A two-digit year is placed in the century window that starts 80 years before `currentYear` (so with 2026:
   * "46" to "99" are 1946 to 1999, "00" to "45" are 2000 to 2045): the usual sliding window, which keeps
   * birth dates in the past and near expiry dates in the future. An
   * offset ("XXX") is subtracted, so "12:00+02:00" is 10:00 GMT.
   */
  std::optional<double> parse(std::string_view text, int currentYear) const;

 private:
  void appendLiteral(std::string_view text);

  std::vector<DatePatternToken> tokens_;
};

/// Whether `DatePattern::format` writes the instant as it is: finite and within years 0001 to 9999 in GMT.
bool isFormattable(double secondsSince1970);

/// The instant's year in GMT, clamped like `DatePattern::format`.
int gmtYear(double secondsSince1970);

}  // namespace zu::detail
