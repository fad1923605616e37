#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ZuDate/ZuDate.hpp"
#include "support/ScopedEnvironment.hpp"

namespace {

using zu::DateFormatterStyle;

constexpr double kSundayEvening = 1583105400.0;  // 2020-03-01 23:30:00 UTC, 2020-03-02 01:30 in Kyiv
const zu::Date kSundayEveningDate = zu::Date::fromTimeIntervalSince1970(kSundayEvening);

/// Sets TZ for one test and puts the previous value back.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) : zone_(std::in_place, "TZ", zone) { ::tzset(); }
  ~ScopedTimeZone() {
    zone_.reset();
    ::tzset();
  }

 private:
  std::optional<testing_support::ScopedEnvironment> zone_;
};

TEST(ZuDate, WritesGmtWhateverTheTimeZone) {
  for (const char* zone : {"Europe/Kyiv", "America/Los_Angeles", "Asia/Kolkata", "UTC"}) {
    ScopedTimeZone timeZone(zone);
    SCOPED_TRACE(zone);
    EXPECT_EQ(zu::stringWithAPIFormat(kSundayEveningDate, DateFormatterStyle::api), "2020-03-01T23:30:00Z");
    EXPECT_EQ(zu::stringWithLocalDateTimeForFileNames(kSundayEveningDate), "20200301_233000");
    EXPECT_EQ(zu::dateFromString("2020-03-01T23:30:00Z", DateFormatterStyle::api), kSundayEveningDate);
  }
}

TEST(ZuDate, WritesEachDisplayPattern) {
  EXPECT_EQ(zu::stringWithLocalShortDate(kSundayEveningDate), "01.03.20");
  EXPECT_EQ(zu::stringWithLocalVerboseDate(kSundayEveningDate), "01 Mar 2020");
  EXPECT_EQ(zu::stringWithVerboseDateTime(kSundayEveningDate), "Sun 01 Mar 2020 23:30:00");
  EXPECT_EQ(zu::stringWithGMTTimeHour(kSundayEveningDate), "23:30");
  EXPECT_EQ(zu::stringWithLocalTimeHour(kSundayEveningDate), "23:30");
  EXPECT_EQ(zu::stringWithLocalDayOfTheWeek(kSundayEveningDate), "Sunday");

  const auto september = zu::Date::fromTimeIntervalSince1970(1630800000.0);  // 2021-09-05 00:00:00 UTC
  EXPECT_EQ(zu::stringWithLocalVerboseDate(september), "05 Sept 2021");
  EXPECT_EQ(zu::stringWithVerboseDateTime(september), "Sun 05 Sept 2021 00:00:00");
  EXPECT_EQ(zu::dateFromLocalVerboseDateString("05 Sept 2021"), september);
  EXPECT_EQ(zu::dateFromLocalVerboseDateString("05 SEPT 2021"), september);
  EXPECT_EQ(zu::dateFromLocalVerboseDateString("05 Sep 2021"), std::nullopt);
  EXPECT_EQ(zu::dateFromLocalShortDateString("05.09.21"), september);
}

struct StyleCase {
  DateFormatterStyle style;
  const char* text;         // 2020-03-01 23:30:00.123 UTC in the style
  double secondsSince1970;  // what the text parses back to
};

class ZuDateStyle : public testing::TestWithParam<StyleCase> {};

TEST_P(ZuDateStyle, WritesAndParsesBack) {
  const auto& [style, text, secondsSince1970] = GetParam();
  const double written = kSundayEvening + 0.123;
  EXPECT_EQ(zu::stringFromTimeInterval(written, style), text);
  EXPECT_EQ(zu::stringWithAPIFormat(zu::Date::fromTimeIntervalSince1970(written), style), text);

  const auto parsed = zu::timeIntervalFromString(text, style);
  ASSERT_TRUE(parsed.has_value());
  EXPECT_DOUBLE_EQ(*parsed, secondsSince1970);
  EXPECT_EQ(zu::stringFromTimeInterval(*parsed, style), text);
  const auto date = zu::dateFromString(text, style);
  ASSERT_TRUE(date.has_value());
  EXPECT_EQ(zu::stringWithAPIFormat(*date, style), text);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStyle, ZuDateStyle,
    testing::Values(StyleCase{DateFormatterStyle::apiNoZone, "2020-03-01T23:30:00", kSundayEvening},
                    StyleCase{DateFormatterStyle::api, "2020-03-01T23:30:00Z", kSundayEvening},
                    StyleCase{DateFormatterStyle::apiMilliseconds, "2020-03-01T23:30:00.123Z",
                              kSundayEvening + 0.123},
                    StyleCase{DateFormatterStyle::apiMillisecondsOffset, "2020-03-01T23:30:00.123Z",
                              kSundayEvening + 0.123},
                    StyleCase{DateFormatterStyle::day, "2020-03-01", 1583020800.0},
                    StyleCase{DateFormatterStyle::shortDate, "01.03.20", 1583020800.0},
                    StyleCase{DateFormatterStyle::time, "23:30:00", 84600.0},
                    StyleCase{DateFormatterStyle::timeMilliseconds, "23:30:00.123", 84600.123}),
    [](const testing::TestParamInfo<StyleCase>& param) {
      return "Style" + std::to_string(zu::rawValue(param.param.style));
    });

TEST(ZuDate, ParsesStrictly) {
  EXPECT_EQ(zu::dateFromString("2020-03-01T23:30:00", DateFormatterStyle::api), std::nullopt);
  EXPECT_EQ(zu::dateFromString("2020-03-01T23:30:00", DateFormatterStyle::apiNoZone), kSundayEveningDate);

  const char* const kRejected[] = {
      "2020-03-01T23:30:00Z ", "2020-03-01T23:30:00ZZ", " 2020-03-01T23:30:00Z", "",  // not the whole text
      "2020-3-01T23:30:00Z",   "20200-03-01T23:30:00Z", "2020-03-01T23:30:0Z",        // digit counts
      "2020-03-01 23:30:00Z",  "2020-03-01T23:30:00z",  "2020/03/01T23:30:00Z",       // literals
      "2020-13-01T23:30:00Z",  "2020-00-01T23:30:00Z",  "2020-03-00T00:00:00Z",       // no such date
      "2020-02-30T00:00:00Z",  "2021-02-29T00:00:00Z",  "0000-01-01T00:00:00Z",       // no such date
      "2020-03-01T24:00:00Z",  "2020-03-01T23:60:00Z",  "2020-03-01T23:30:60Z",       // time out of range
      "2020-03-01T23:30:+0Z",  "２020-03-01T23:30:00Z",                               // ASCII digits only
  };
  for (const char* text : kRejected) {
    EXPECT_EQ(zu::dateFromString(text, DateFormatterStyle::api), std::nullopt) << text;
  }
  EXPECT_TRUE(zu::dateFromString("2020-02-29T00:00:00Z", DateFormatterStyle::api).has_value());
  EXPECT_EQ(zu::dateFromLocalShortDateString("1.03.20"), std::nullopt);
  EXPECT_EQ(zu::dateFromLocalVerboseDateString("01 March 2020"), std::nullopt);
}

TEST(ZuDate, CutsOffMillisecondsWithoutRoundingUp) {
  EXPECT_EQ(zu::stringFromTimeInterval(kSundayEvening + 59.9996, DateFormatterStyle::apiMilliseconds),
            "2020-03-01T23:30:59.999Z");
  EXPECT_EQ(zu::stringFromTimeInterval(kSundayEvening + 59.9996, DateFormatterStyle::api),
            "2020-03-01T23:30:59Z");
  EXPECT_EQ(zu::stringFromTimeInterval(-0.5, DateFormatterStyle::apiMilliseconds),
            "1969-12-31T23:59:59.500Z");
  // 0.001 is not exact in binary; the millisecond must survive the trip through the 2001-based date.
  const auto date = zu::Date::fromTimeIntervalSince1970(kSundayEvening + 0.001);
  EXPECT_EQ(zu::stringWithAPIFormat(date, DateFormatterStyle::apiMilliseconds), "2020-03-01T23:30:00.001Z");
  // Far in the future doubles are coarser than a microsecond: a parsed millisecond still writes back as
  // itself.
  const std::string farOff = "6421-03-01T23:30:00.133Z";
  EXPECT_EQ(zu::stringWithAPIFormat(*zu::dateFromString(farOff, DateFormatterStyle::apiMilliseconds),
                                    DateFormatterStyle::apiMilliseconds),
            farOff);
}

TEST(ZuDate, AppliesIsoOffsets) {
  constexpr auto style = DateFormatterStyle::apiMillisecondsOffset;
  EXPECT_EQ(zu::timeIntervalFromString("2020-03-02T01:30:00.000+02:00", style), kSundayEvening);
  EXPECT_EQ(zu::timeIntervalFromString("2020-03-01T18:00:00.000-05:30", style), kSundayEvening);
  EXPECT_EQ(zu::timeIntervalFromString("2020-03-01T23:30:00.000+00:00", style), kSundayEvening);
  for (const char* text :
       {"2020-03-01T23:30:00.000+0200", "2020-03-01T23:30:00.000+24:00", "2020-03-01T23:30:00.000+02:60",
        "2020-03-01T23:30:00.000GMT", "2020-03-01T23:30:00.000"}) {
    EXPECT_EQ(zu::timeIntervalFromString(text, style), std::nullopt) << text;
  }
}

TEST(ZuDate, ReadsTimeWithOrWithoutMilliseconds) {
  EXPECT_EQ(zu::timeIntervalFromString("12:34:56"), 45296.0);
  EXPECT_EQ(zu::timeIntervalFromString("12:34:56.789"), 45296.789);
  EXPECT_EQ(zu::timeIntervalFromString("12:34"), std::nullopt);
  EXPECT_EQ(zu::timeIntervalFromString("12:34:56.78"), std::nullopt);
}

TEST(ZuDate, OutOfRangeSecondsAreNotWrittenButDatesAreClamped) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  for (double seconds : {kNaN, kInfinity, -kInfinity, 1e15, -1e15, 253402300800.0, -62135596801.0}) {
    EXPECT_EQ(zu::stringFromTimeInterval(seconds, DateFormatterStyle::api), std::nullopt) << seconds;
  }
  EXPECT_EQ(zu::stringFromTimeInterval(-62135596800.0, DateFormatterStyle::api), "0001-01-01T00:00:00Z");
  EXPECT_EQ(zu::stringFromTimeInterval(253402300799.0, DateFormatterStyle::api), "9999-12-31T23:59:59Z");

  constexpr auto style = DateFormatterStyle::apiMilliseconds;
  EXPECT_EQ(zu::stringWithAPIFormat(zu::Date(kInfinity), style), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(zu::stringWithAPIFormat(zu::Date(1e300), style), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(zu::stringWithAPIFormat(zu::Date(-kInfinity), style), "0001-01-01T00:00:00.000Z");
  EXPECT_EQ(zu::stringWithAPIFormat(zu::Date(kNaN), style), "0001-01-01T00:00:00.000Z");
}

// Run under the tsan preset this shows that no formatter state is shared between threads.
TEST(ZuDate, WritesAndParsesOnManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (const auto style :
       {DateFormatterStyle::api, DateFormatterStyle::shortDate, DateFormatterStyle::time}) {
    threads.emplace_back([style] {
      const std::string expected = zu::stringWithAPIFormat(kSundayEveningDate, style);
      for (int i = 0; i < 2000; ++i) {
        const auto text = zu::stringWithAPIFormat(kSundayEveningDate, style);
        EXPECT_EQ(text, expected);
        EXPECT_TRUE(zu::dateFromString(text, style).has_value());
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
