#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ZuFoundation/Date.hpp"
#include "ZuFoundation/RawValue.hpp"

namespace zu {

/// The fixed date patterns of the SDK, by raw value.
enum class DateFormatterStyle {
  apiNoZone = 0,              ///< "yyyy-MM-dd'T'HH:mm:ss"
  api = 1,                    ///< "yyyy-MM-dd'T'HH:mm:ss'Z'": the service's dates
  apiMilliseconds = 2,        ///< "yyyy-MM-dd'T'HH:mm:ss.SSS'Z'"
  apiMillisecondsOffset = 3,  ///< "yyyy-MM-dd'T'HH:mm:ss.SSSXXX"
  day = 4,                    ///< "yyyy-MM-dd"
  shortDate = 5,              ///< "dd.MM.yy"
  time = 6,                   ///< "HH:mm:ss"
  timeMilliseconds = 7,       ///< "HH:mm:ss.SSS"
};

template <>
struct RawValueRange<DateFormatterStyle> {
  static constexpr int first = 0;
  static constexpr int last = 7;
};

/// The pattern of a style (see `DateFormatterStyle`).
std::string_view pattern(DateFormatterStyle style);

// Dates as text, always in GMT with the en_GB locale's English month and weekday names ("Sept" for
// September), so the texts do not depend on the device's time zone or language; the operations named "Local"
// use GMT as well. Parsing is strict: the whole text must match the pattern, literals included, with exactly
// the pattern's digits and values in range ("2020-02-30" fails). A two-digit year falls in the hundred years
// starting 80 years before the current one. Milliseconds are cut off, never rounded up. Every operation may
// be called from any thread: nothing mutable is shared.
//
// The writers that return a `std::string` write dates before year 0001 or after 9999 as the nearer of
// 0001-01-01 00:00:00.000 and 9999-12-31 23:59:59.999 (a NaN date as the first), rather than fail.

/// The text parsed with the style's pattern; nothing when it does not match.
std::optional<Date> dateFromString(std::string_view text, DateFormatterStyle style);
/// The text parsed as "dd.MM.yy".
std::optional<Date> dateFromLocalShortDateString(std::string_view text);
/// The text parsed as "dd MMM yyyy".
std::optional<Date> dateFromLocalVerboseDateString(std::string_view text);
/// The text parsed with the style's pattern, as seconds since 1970-01-01 00:00:00 UTC; a pattern without a
/// date counts from that day, so "HH:mm:ss" gives seconds since midnight.
std::optional<double> timeIntervalFromString(std::string_view text, DateFormatterStyle style);
/// The text parsed as "HH:mm:ss", else as "HH:mm:ss.SSS", as seconds since 1970 (so since midnight).
std::optional<double> timeIntervalFromString(std::string_view text);
/// Seconds since 1970-01-01 00:00:00 UTC written with the style's pattern; nothing for a non-finite number
/// of seconds or one outside years 0001 to 9999.
std::optional<std::string> stringFromTimeInterval(double seconds, DateFormatterStyle style);

/// The date written with the style's pattern.
std::string stringWithAPIFormat(Date date, DateFormatterStyle style);
/// "dd.MM.yy", e.g. "01.03.20".
std::string stringWithLocalShortDate(Date date);
/// "dd MMM yyyy", e.g. "01 Mar 2020".
std::string stringWithLocalVerboseDate(Date date);
/// "EEE dd MMM yyyy HH:mm:ss", e.g. "Sun 01 Mar 2020 23:30:00".
std::string stringWithVerboseDateTime(Date date);
/// "yyyyMMdd_HHmmss", e.g. "20200301_233000": the base of captured files' names.
std::string stringWithLocalDateTimeForFileNames(Date date);
/// "HH:mm" in GMT.
std::string stringWithGMTTimeHour(Date date);
/// "HH:mm" in GMT, like `stringWithGMTTimeHour`.
std::string stringWithLocalTimeHour(Date date);
/// The full weekday name, e.g. "Sunday".
std::string stringWithLocalDayOfTheWeek(Date date);

}  // namespace zu
