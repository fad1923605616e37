#include "ZuDate/ZuDate.hpp"

#include "ZuDate/detail/DatePattern.hpp"
#include "ZuFoundation/FatalError.hpp"

namespace zu {
namespace {

constexpr std::string_view kShortDatePattern = "dd.MM.yy";
constexpr std::string_view kVerboseDatePattern = "dd MMM yyyy";
constexpr std::string_view kVerboseDateTimePattern = "EEE dd MMM yyyy HH:mm:ss";
constexpr std::string_view kFileNamePattern = "yyyyMMdd_HHmmss";
constexpr std::string_view kTimeHourPattern = "HH:mm";
constexpr std::string_view kDayOfTheWeekPattern = "EEEE";

// A pattern is compiled per call rather than kept in a shared formatter: the patterns are a few characters
// long, and nothing mutable is shared between threads.
std::optional<double> parse(std::string_view text, std::string_view pattern) {
  return detail::DatePattern(pattern).parse(text, detail::gmtYear(Date::now().timeIntervalSince1970()));
}

std::optional<Date> parseDate(std::string_view text, std::string_view pattern) {
  const auto seconds = parse(text, pattern);
  if (!seconds) return std::nullopt;
  return Date::fromTimeIntervalSince1970(*seconds);
}

std::string format(Date date, std::string_view pattern) {
  return detail::DatePattern(pattern).format(date.timeIntervalSince1970());
}

}  // namespace

std::string_view pattern(DateFormatterStyle style) {
  switch (style) {
    case DateFormatterStyle::apiNoZone:
      return "yyyy-MM-dd'T'HH:mm:ss";
    case DateFormatterStyle::api:
      return "yyyy-MM-dd'T'HH:mm:ss'Z'";
    case DateFormatterStyle::apiMilliseconds:
      return "yyyy-MM-dd'T'HH:mm:ss.SSS'Z'";
    case DateFormatterStyle::apiMillisecondsOffset:
      return "yyyy-MM-dd'T'HH:mm:ss.SSSXXX";
    case DateFormatterStyle::day:
      return "yyyy-MM-dd";
    case DateFormatterStyle::shortDate:
      return "dd.MM.yy";
    case DateFormatterStyle::time:
      return "HH:mm:ss";
    case DateFormatterStyle::timeMilliseconds:
      return "HH:mm:ss.SSS";
  }
  fatalError("Unknown DateFormatterStyle " + std::to_string(rawValue(style)));
}

std::optional<Date> dateFromString(std::string_view text, DateFormatterStyle style) {
  return parseDate(text, pattern(style));
}

std::optional<Date> dateFromLocalShortDateString(std::string_view text) {
  return parseDate(text, kShortDatePattern);
}

std::optional<Date> dateFromLocalVerboseDateString(std::string_view text) {
  return parseDate(text, kVerboseDatePattern);
}

std::optional<double> timeIntervalFromString(std::string_view text, DateFormatterStyle style) {
  return parse(text, pattern(style));
}

std::optional<double> timeIntervalFromString(std::string_view text) {
  if (auto seconds = timeIntervalFromString(text, DateFormatterStyle::time)) return seconds;
  return timeIntervalFromString(text, DateFormatterStyle::timeMilliseconds);
}

std::optional<std::string> stringFromTimeInterval(double seconds, DateFormatterStyle style) {
  if (!detail::isFormattable(seconds)) return std::nullopt;
  return detail::DatePattern(pattern(style)).format(seconds);
}

std::string stringWithAPIFormat(Date date, DateFormatterStyle style) { return format(date, pattern(style)); }

std::string stringWithLocalShortDate(Date date) { return format(date, kShortDatePattern); }

std::string stringWithLocalVerboseDate(Date date) { return format(date, kVerboseDatePattern); }

std::string stringWithVerboseDateTime(Date date) { return format(date, kVerboseDateTimePattern); }

std::string stringWithLocalDateTimeForFileNames(Date date) { return format(date, kFileNamePattern); }

std::string stringWithGMTTimeHour(Date date) { return format(date, kTimeHourPattern); }

std::string stringWithLocalTimeHour(Date date) { return format(date, kTimeHourPattern); }

std::string stringWithLocalDayOfTheWeek(Date date) { return format(date, kDayOfTheWeekPattern); }

}  // namespace zu
