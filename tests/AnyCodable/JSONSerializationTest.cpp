#include "AnyCodable/JSONSerialization.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <string>

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
}

TEST(JSONSerialization, BoundsTheNesting) {
  const auto nested = [](std::size_t depth, std::string_view open, std::string_view close) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += open;
    for (std::size_t i = 0; i < depth; ++i) text += close;
    return text;
  };
  EXPECT_TRUE(parse(nested(JSONSerialization::maximumDepth, "[", "]")));
  EXPECT_TRUE(parse(nested(JSONSerialization::maximumDepth / 2, "{\"k\":[", "]}")));
  for (const std::string& deep :
       {nested(513, "[", "]"), nested(257, "{\"k\":[", "]}"), std::string(100000, '[')}) {
    auto value = parse(deep);
    ASSERT_FALSE(value);
    EXPECT_EQ(*value.error().userInfo().find("NSDebugDescription"),
              AnyCodable("JSON nested deeper than 512 levels"));
  }
}

TEST(JSONSerialization, DictionariesKeepTheDocumentsKeyOrder) {
  const auto keys = [](const AnyCodable& value) {
    std::string text;
    for (const auto& entry : *value.dictionaryValue()) text += entry.first + " ";
    return text;
  };
  EXPECT_EQ(keys(*parse(R"({"z":1,"a":2,"m":3})")), "z a m ");
  // A repeated key keeps its first place and takes its last value, in small and large dictionaries alike.
  const AnyCodable repeated = *parse(R"({"a":1,"b":2,"a":3})");
  EXPECT_EQ(keys(repeated), "a b ");
  EXPECT_EQ(*repeated.dictionaryValue()->find("a"), AnyCodable(3));
  std::string large = "{";
  for (int i = 0; i < 40; ++i) large += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
  const AnyCodable many = *parse(large + "\"k7\":\"last\"}");
  EXPECT_EQ(many.dictionaryValue()->size(), 40U);
  EXPECT_EQ(many.dictionaryValue()->begin()[7], (AnyCodable::Dictionary::Entry{"k7", "last"}));
}

struct ReadCase {
  std::string_view text;
  AnyCodable value;
};

class JSONValues : public testing::TestWithParam<ReadCase> {};

// Equality compares kinds too, so each row also proves Int, UInt or Double.
TEST_P(JSONValues, ReadAsTheirKind) {
  const auto value = parse(GetParam().text);
  ASSERT_TRUE(value) << value.error().userInfo().find("NSDebugDescription")->description();
  EXPECT_EQ(*value, GetParam().value) << value->debugDescription();
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, JSONValues,
    testing::Values(ReadCase{"0", 0}, ReadCase{"-0", 0}, ReadCase{"-0.0", 0}, ReadCase{"1", 1},
                    ReadCase{"1.0", 1}, ReadCase{"1.5e3", 1500}, ReadCase{"2E-1", 0.2},
                    ReadCase{"-2.5", -2.5}, ReadCase{"9223372036854775807", 9223372036854775807LL},
                    ReadCase{"9223372036854775808", 9223372036854775808ULL},
                    ReadCase{"-9223372036854775808", std::numeric_limits<long long>::min()},
                    // Past 64 bits a number is read as a double: this one rounds to -2^63, whole, so an Int.
                    ReadCase{"-9223372036854775809", std::numeric_limits<long long>::min()},
                    ReadCase{"18446744073709551615", 18446744073709551615ULL},
                    ReadCase{"18446744073709551616", 18446744073709551616.0},
                    ReadCase{"1e19", 10000000000000000000ULL},
                    ReadCase{"123456789012345678901234567890", 123456789012345678901234567890.0},
                    ReadCase{"1.7976931348623157e308", 1.7976931348623157e308}, ReadCase{"5e-324", 5e-324},
                    // Too small for a double: zero, which is whole.
                    ReadCase{"1e-400", 0}, ReadCase{"-1e-400", 0},
                    ReadCase{"[1,-1,1.25,null,true,false]",
                             AnyCodable::Array{1, -1, 1.25, AnyCodable(), true, false}}));

INSTANTIATE_TEST_SUITE_P(
    Strings, JSONValues,
    testing::Values(
        ReadCase{R"("plain")", "plain"}, ReadCase{R"("\"\\\/\b\f\n\r\t")", "\"\\/\b\f\n\r\t"},
        ReadCase{R"("\u00e9\u20AC")", "\u00e9\u20ac"}, ReadCase{R"("\ud83d\ude00 pair")", "\U0001F600 pair"},
        ReadCase{"\"\u00e9\u20ac\U0001F600\U0010FFFF raw\"", "\u00e9\u20ac\U0001F600\U0010FFFF raw"},
        ReadCase{R"("nul \u0000 inside")", std::string("nul \0 inside", 12)},
        ReadCase{"\"a string longer than a word, with \\\"an escape\\\" after its first eight bytes\"",
                 "a string longer than a word, with \"an escape\" after its first eight bytes"},
        ReadCase{" \t\r\n\"spaced\" \n", "spaced"}, ReadCase{"\xEF\xBB\xBFnull", AnyCodable()}));

struct FailureCase {
  std::string_view text;
  std::string_view debugDescription;
};

class JSONFailures : public testing::TestWithParam<FailureCase> {};

TEST_P(JSONFailures, SayWhatAndWhere) {
  const auto value = parse(GetParam().text);
  ASSERT_FALSE(value) << value->debugDescription();
  EXPECT_EQ(value.error().domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(value.error().code(), zu::CocoaError::propertyListReadCorrupt);
  EXPECT_EQ(*value.error().userInfo().find("NSDebugDescription"), AnyCodable(GetParam().debugDescription));
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, JSONFailures,
    testing::Values(
        FailureCase{"1e400", "Number 1e400 is not representable as a double around line 1, column 6."},
        FailureCase{"[-1e400]", "Number -1e400 is not representable as a double around line 1, column 8."},
        FailureCase{"01", "Garbage at end around line 1, column 2."},
        FailureCase{"1.", "Invalid number around line 1, column 3."},
        FailureCase{"1e+", "Invalid number around line 1, column 4."},
        FailureCase{"-", "Invalid number around line 1, column 2."},
        FailureCase{".5", "Invalid value around line 1, column 1."},
        FailureCase{"+1", "Invalid value around line 1, column 1."},
        FailureCase{"NaN", "Invalid value around line 1, column 1."},
        FailureCase{"tru", "Invalid value around line 1, column 1."}));

INSTANTIATE_TEST_SUITE_P(
    Strings, JSONFailures,
    testing::Values(FailureCase{R"("\ud800")", "Unpaired UTF-16 surrogate around line 1, column 8."},
                    FailureCase{R"("\ud800\u0041")", "Unpaired UTF-16 surrogate around line 1, column 14."},
                    FailureCase{R"("\udc00")", "Unpaired UTF-16 surrogate around line 1, column 8."},
                    FailureCase{R"("\u12")", "Invalid \\u escape around line 1, column 6."},
                    FailureCase{R"("\x")", "Invalid escape sequence around line 1, column 3."},
                    FailureCase{"\"a\nb\"",
                                "Unescaped control character in a string around line 1, column 3."},
                    FailureCase{"\"\xff\"", "Invalid UTF-8 around line 1, column 2."},
                    FailureCase{"\"\xc0\xaf\"", "Invalid UTF-8 around line 1, column 2."},
                    FailureCase{"\"\xed\xa0\x80\"", "Invalid UTF-8 around line 1, column 2."},
                    FailureCase{"\"\xf4\x90\x80\x80\"", "Invalid UTF-8 around line 1, column 2."},
                    FailureCase{"\"\xe2\x82\"", "Invalid UTF-8 around line 1, column 2."},
                    FailureCase{"\"open", "Unterminated string around line 1, column 6."}));

INSTANTIATE_TEST_SUITE_P(
    Structure, JSONFailures,
    testing::Values(FailureCase{"", "Unexpected end of data around line 1, column 1."},
                    FailureCase{"[1,\n 2 x]",
                                "Expected ',' or ']' after an array element around line 2, column 4."},
                    FailureCase{"[1,]", "Invalid value around line 1, column 4."},
                    FailureCase{"{\"a\" 1}", "Expected ':' after a dictionary key around line 1, column 6."},
                    FailureCase{"{\"a\":1 \"b\":2}",
                                "Expected ',' or '}' after a dictionary value around line 1, column 8."},
                    FailureCase{"{a:1}", "Expected a string key around line 1, column 2."},
                    FailureCase{"{\"a\":1,}", "Expected a string key around line 1, column 8."},
                    FailureCase{"{\"a\":1} x", "Garbage at end around line 1, column 9."},
                    FailureCase{"[1] [2]", "Garbage at end around line 1, column 5."},
                    FailureCase{"nullx", "Garbage at end around line 1, column 5."}));

}  // namespace
