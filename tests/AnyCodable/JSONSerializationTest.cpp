#include "AnyCodable/JSONSerialization.hpp"

#include <gtest/gtest.h>

#include <set>

namespace {

using zu::AnyCodable;
using zu::JSONSerialization;
using Kind = AnyCodable::Kind;

std::string json(const AnyCodable& value) {
  auto data = JSONSerialization::data(value);
  if (!data) return "error: " + data.error().localizedDescription();
  return std::string(data->begin(), data->end());
}

zu::Result<AnyCodable> parse(std::string_view text) {
  return JSONSerialization::jsonObject(zu::Data(text.begin(), text.end()));
}

TEST(JSONSerialization, EncodesEveryKind) {
  EXPECT_EQ(json(AnyCodable(std::optional<std::string>())), "null");
  EXPECT_EQ(json(true), "true");
  EXPECT_EQ(json(AnyCodable::int8(-8)), "-8");
  EXPECT_EQ(json(AnyCodable::uint64(18446744073709551615ULL)), "18446744073709551615");
  EXPECT_EQ(json(1.1f), "1.1");
  EXPECT_EQ(json(2.5), "2.5");
  EXPECT_EQ(json("a\"b"), "\"a\\\"b\"");
  EXPECT_EQ(json(zu::Date(12.5)), "12.5");
  EXPECT_EQ(json(*zu::URL::fromString("https://h/p?q=1")), "\"https://h/p?q=1\"");
  EXPECT_EQ(json(AnyCodable::Array{1, AnyCodable(), "x"}), "[1,null,\"x\"]");
  EXPECT_EQ(json(AnyCodable::Dictionary{{"z", 1}, {"a", AnyCodable::Dictionary{{"m", false}}}}),
            "{\"z\":1,\"a\":{\"m\":false}}");
}

TEST(JSONSerialization, UnencodableValuesFailWithTheirCodingPath) {
  const AnyCodable value =
      AnyCodable::Dictionary{{"list", AnyCodable::Array{1, AnyCodable::opaque(std::set<int>{})}}};
  auto data = JSONSerialization::data(value);
  ASSERT_FALSE(data);
  EXPECT_EQ(data.error().domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(data.error().code(), zu::CocoaError::coderInvalidValue);
  EXPECT_EQ(*data.error().userInfo().find("NSDebugDescription"),
            AnyCodable("AnyCodable value cannot be encoded"));
  EXPECT_EQ(*data.error().userInfo().find("NSCodingPath"), AnyCodable(AnyCodable::Array{"list", "Index 1"}));
  EXPECT_EQ(data.error().localizedDescription(),
            "The data couldn’t be written because it isn’t in the correct format.");
  EXPECT_FALSE(JSONSerialization::data(std::numeric_limits<double>::quiet_NaN()));
}

TEST(JSONSerialization, DecodesNumbersByTheirValue) {
  EXPECT_EQ(parse("3")->kind(), Kind::Int);
  EXPECT_EQ(parse("3.0")->kind(), Kind::Int);
  EXPECT_EQ(parse("-9223372036854775808")->kind(), Kind::Int);
  EXPECT_EQ(parse("9223372036854775808")->kind(), Kind::UInt);
  EXPECT_EQ(*parse("18446744073709551615"), AnyCodable(18446744073709551615ULL));
  EXPECT_EQ(*parse("3.5"), AnyCodable(3.5));
  EXPECT_EQ(parse("1e300")->kind(), Kind::Double);
  EXPECT_EQ(*parse("true"), AnyCodable(true));
  EXPECT_EQ(*parse("null"), AnyCodable());
  EXPECT_EQ(*parse("\"2020-03-01T23:30:00Z\""), AnyCodable("2020-03-01T23:30:00Z"));
}

TEST(JSONSerialization, RoundTripsNestedValues) {
  const AnyCodable value =
      AnyCodable::Dictionary{{"s", "text"},
                             {"i", 42},
                             {"b", false},
                             {"d", 0.25},
                             {"n", AnyCodable::Array{1, AnyCodable::Array{"x", AnyCodable()}}}};
  EXPECT_EQ(*parse(json(value)), value);
  // A date comes back as what the writer made of it: a number.
  EXPECT_EQ(*parse(json(AnyCodable::Array{zu::Date(1.5)})), AnyCodable(AnyCodable::Array{1.5}));
}

TEST(JSONSerialization, RejectsWhatIsNotJSON) {
  for (std::string_view text : {"", "{", "nope", "[1,]", "\"\xff\"", "{\"a\":1} x"}) {
    auto value = parse(text);
    ASSERT_FALSE(value) << text;
    EXPECT_EQ(value.error().domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(value.error().code(), zu::CocoaError::propertyListReadCorrupt);
    EXPECT_EQ(value.error().localizedDescription(),
              "The data couldn’t be read because it isn’t in the correct format.");
  }
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_FALSE(parse(deep));
  const std::string allowed = std::string(500, '[') + std::string(500, ']');
  EXPECT_TRUE(parse(allowed));
}

}  // namespace
