// Canonical JSON and base64url: the byte forms that signatures cover, so one value has one text.
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"

#include <gtest/gtest.h>

#include "KivSDK/Provenance/detail/Base64Url.hpp"

namespace {

using kiv::detail::base64UrlDecode;
using kiv::detail::base64UrlEncode;
using kiv::detail::canonicalJSON;
using kiv::detail::readCanonicalObject;
using zu::AnyCodable;

struct Written {
  const char* name;
  AnyCodable value;
  std::string text;
};

class CanonicalText : public ::testing::TestWithParam<Written> {};

TEST_P(CanonicalText, IsWrittenAndReadBack) {
  const auto text = canonicalJSON(GetParam().value);
  ASSERT_TRUE(text) << text.error().localizedDescription();
  EXPECT_EQ(*text, GetParam().text);
  if (GetParam().value.dictionaryValue()) {
    EXPECT_TRUE(readCanonicalObject(*text)) << *text;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Values, CanonicalText,
    ::testing::Values(
        Written{"keys_sorted_by_bytes",
                AnyCodable::Dictionary{{"b", 1}, {"a", "x"}, {"B", nullptr}, {"\xc3\xa9", 2}, {"aa", 3}},
                R"({"B":null,"a":"x","aa":3,"b":1,"é":2})"},
        Written{
            "nested_without_whitespace",
            AnyCodable::Dictionary{{"l", AnyCodable::Array{1, AnyCodable::Dictionary{{"z", 0}, {"y", "t"}}}}},
            R"({"l":[1,{"y":"t","z":0}]})"},
        Written{"escapes_only_what_json_needs", AnyCodable("q\"b\\s/\b\t\n\f\r\x01\x1f\x7f\xc3\xa9"),
                "\"q\\\"b\\\\s/\\b\\t\\n\\f\\r\\u0001\\u001f\x7f\xc3\xa9\""},
        Written{"largest_integer", AnyCodable(std::uint64_t{9007199254740991}), "9007199254740991"},
        Written{"zero_as_signed_integer", AnyCodable(0), "0"}),
    [](const auto& info) { return info.param.name; });

TEST(CanonicalJSON, RefusesWhatItCannotWriteCanonically) {
  for (const AnyCodable& value :
       {AnyCodable(true), AnyCodable(1.5), AnyCodable(-1), AnyCodable(std::uint64_t{9007199254740992}),
        AnyCodable(std::string("\xff")), AnyCodable(AnyCodable::Dictionary{{"\xc0\xaf", 1}}),
        AnyCodable(AnyCodable::Array{AnyCodable(std::string("\xed\xa0\x80"))})}) {
    const auto text = canonicalJSON(value);
    ASSERT_FALSE(text) << value.debugDescription();
    EXPECT_EQ(text.error().domain(), "KivProvenanceErrorDomain");
  }
}

TEST(CanonicalJSON, ReadingRefusesEveryOtherTextOfTheSameObject) {
  for (const char* text : {R"( {"a":1})", R"({"a": 1})", R"({"b":1,"a":2})", R"({"a":1,"a":1})",
                           R"({"a":"\/"})", R"({"a":"\u00e9"})", R"({"a":"\u001F"})", R"({"a":1.0})",
                           R"({"a":true})", "[1]", "\xef\xbb\xbf{}", "{", ""}) {
    EXPECT_FALSE(readCanonicalObject(text)) << text;
  }
  const auto read = readCanonicalObject(R"({"a":[null,"\n"],"b":{}})");
  ASSERT_TRUE(read);
  EXPECT_EQ(*read->find("a")->arrayValue()->at(1).stringValue(), "\n");
}

TEST(Base64Url, EncodesWithoutPaddingAndDecodesOnlyItsOwnForm) {
  const std::string bytes("\xfb\xff\x00\x01\x02", 5);
  const std::vector<std::pair<std::string, std::string>> pairs = {
      {"", ""}, {"f", "Zg"}, {"fo", "Zm8"}, {"foo", "Zm9v"}, {bytes, "-_8AAQI"}};
  for (const auto& [plain, encoded] : pairs) {
    EXPECT_EQ(base64UrlEncode(plain), encoded);
    const auto decoded = base64UrlDecode(encoded);
    ASSERT_TRUE(decoded) << encoded;
    EXPECT_EQ(std::string(decoded->begin(), decoded->end()), plain);
  }
  for (const char* foreign : {"Zg==", "Zm8=", "+/8A", "Z", "Zh", "Zm9", "Zm 9v", "Zm9v\n"}) {
    EXPECT_FALSE(base64UrlDecode(foreign)) << foreign;
  }
}

}  // namespace
