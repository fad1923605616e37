#include <gtest/gtest.h>

#include <string>

#include "ZuDate/detail/DatePattern.hpp"

namespace {

using zu::detail::DatePattern;

TEST(DatePattern, PlacesTwoDigitYearsInASlidingCentury) {
  const DatePattern shortDate("dd.MM.yy");
  const DatePattern day("yyyy-MM-dd");
  const auto year = [&](const char* text, int currentYear) {
    const auto seconds = shortDate.parse(text, currentYear);
    return seconds ? day.format(*seconds).substr(0, 4) : std::string("none");
  };
  EXPECT_EQ(year("01.03.45", 2026), "2045");
  EXPECT_EQ(year("01.03.46", 2026), "1946");
  EXPECT_EQ(year("01.03.99", 2026), "1999");
  EXPECT_EQ(year("01.03.00", 2026), "2000");
  EXPECT_EQ(year("01.03.00", 2090), "2100");
  EXPECT_EQ(year("29.02.00", 2090), "none");  // 2100 is no leap year
  EXPECT_EQ(shortDate.format(day.parse("1999-12-31", 2026).value()), "31.12.99");
}

TEST(DatePattern, KeepsCalendarArithmeticExactAcrossYears0001To9999) {
  const DatePattern pattern("EEEE yyyy-MM-dd HH:mm:ss.SSS");
  for (const char* text : {"Monday 0001-01-01 00:00:00.000", "Tuesday 1600-02-29 12:00:00.500",
                           "Wednesday 1900-02-28 23:59:59.999", "Thursday 1900-03-01 00:00:00.000",
                           "Thursday 1970-01-01 00:00:00.000", "Tuesday 2000-02-29 06:07:08.009",
                           "Sunday 2012-12-30 00:00:00.000", "Friday 9999-12-31 23:59:59.999"}) {
    const auto seconds = pattern.parse(text, 2026);
    ASSERT_TRUE(seconds.has_value()) << text;
    EXPECT_EQ(pattern.format(*seconds), text);
  }
  EXPECT_EQ(pattern.parse("Monday 1970-01-01 00:00:00.000", 2026), std::nullopt);  // a Thursday
  EXPECT_EQ(pattern.parse("monday 0001-01-01 00:00:00.000", 2026), -62135596800.0);
}

TEST(DatePattern, TreatsQuotedAndNonLetterTextAsLiteral) {
  const DatePattern pattern("HH 'o''clock' '' 'at' HH_mm");
  const double seconds = 9 * 3600 + 5 * 60;
  EXPECT_EQ(pattern.format(seconds), "09 o'clock ' at 09_05");
  EXPECT_EQ(pattern.parse("09 o'clock ' at 09_05", 2026), seconds);
  EXPECT_EQ(pattern.parse("09 oclock ' at 09_05", 2026), std::nullopt);
}

TEST(DatePatternDeathTest, StopsOnAPatternItCannotHonour) {
  EXPECT_DEATH(DatePattern("yyy"), "Unsupported date pattern field yyy");
  EXPECT_DEATH(DatePattern("HH:mm a"), "Unsupported date pattern field a");
  EXPECT_DEATH(DatePattern("HH 'o"), "Unterminated quote");
}

}  // namespace
