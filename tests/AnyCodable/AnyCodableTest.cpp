#include "AnyCodable/AnyCodable.hpp"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using zu::AnyCodable;
using Kind = AnyCodable::Kind;

TEST(AnyCodable, ConstructionPicksTheKind) {
  EXPECT_EQ(AnyCodable().kind(), Kind::Empty);
  EXPECT_EQ(AnyCodable(std::optional<int>()).kind(), Kind::Empty);
  EXPECT_EQ(AnyCodable(std::optional<int>(3)).kind(), Kind::Int);
  EXPECT_EQ(AnyCodable(true).kind(), Kind::Bool);
  EXPECT_EQ(AnyCodable(3).kind(), Kind::Int);
  EXPECT_EQ(AnyCodable(std::int64_t{3}).kind(), Kind::Int);
  EXPECT_EQ(AnyCodable(3U).kind(), Kind::UInt);
  EXPECT_EQ(AnyCodable(1.5f).kind(), Kind::Float);
  EXPECT_EQ(AnyCodable(1.5).kind(), Kind::Double);
  EXPECT_EQ(AnyCodable("x").kind(), Kind::String);
  EXPECT_EQ(AnyCodable(zu::Date()).kind(), Kind::Date);
  EXPECT_EQ(AnyCodable(*zu::URL::fromString("https://h/")).kind(), Kind::URL);
  EXPECT_EQ(AnyCodable::int8(1).kind(), Kind::Int8);
  EXPECT_EQ(AnyCodable::int64(1).kind(), Kind::Int64);
  EXPECT_EQ(AnyCodable::uint16(1).kind(), Kind::UInt16);
  EXPECT_EQ(AnyCodable::opaque(std::set<int>{}).kind(), Kind::Opaque);
}

TEST(AnyCodable, EqualityNeedsTheSameKind) {
  EXPECT_EQ(AnyCodable(), AnyCodable(nullptr));
  EXPECT_EQ(AnyCodable(1), AnyCodable(1));
  EXPECT_NE(AnyCodable(1), AnyCodable(1.0));
  EXPECT_NE(AnyCodable(1), AnyCodable::int64(1));
  EXPECT_NE(AnyCodable(1U), AnyCodable::uint64(1));
  EXPECT_EQ(AnyCodable::int32(5), AnyCodable::int32(5));
  EXPECT_NE(AnyCodable(true), AnyCodable(1));
  EXPECT_NE(AnyCodable(1.5f), AnyCodable(1.5));
  EXPECT_EQ(AnyCodable(AnyCodable::Array{1, "a"}), AnyCodable(AnyCodable::Array{1, "a"}));
  EXPECT_NE(AnyCodable(AnyCodable::Array{1, "a"}), AnyCodable(AnyCodable::Array{"a", 1}));
  EXPECT_EQ(AnyCodable(AnyCodable::Dictionary{{"a", 1}, {"b", 2}}),
            AnyCodable(AnyCodable::Dictionary{{"b", 2}, {"a", 1}}));
  EXPECT_NE(AnyCodable(AnyCodable::Dictionary{{"a", 1}}),
            AnyCodable(AnyCodable::Dictionary{{"a", 1}, {"b", 2}}));
  // Dates, URLs and opaque values never compare equal, not even to themselves.
  const AnyCodable date(zu::Date(5));
  const AnyCodable url(*zu::URL::fromString("https://h/"));
  const AnyCodable opaque = AnyCodable::opaque(3);
  EXPECT_NE(date, date);
  EXPECT_NE(url, url);
  EXPECT_NE(opaque, opaque);
}

TEST(AnyCodable, RepeatedKeysInLiteralsAndDecodedMembers) {
  const AnyCodable::Dictionary dict{{"a", 1}, {"b", 2}, {"a", 3}};
  ASSERT_EQ(dict.size(), 2U);
  EXPECT_EQ(*dict.find("a"), AnyCodable(1));
  EXPECT_EQ(dict.begin()->first, "a");

  // Decoded members: a repeated key keeps its first place and takes its last value.
  const auto decoded = AnyCodable::Dictionary::fromEntries({{"a", 1}, {"b", 2}, {"a", 3}, {"c", 4}});
  ASSERT_EQ(decoded.size(), 3U);
  EXPECT_EQ(*decoded.find("a"), AnyCodable(3));
  std::vector<std::string> keys;
  for (const auto& [key, value] : decoded) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(AnyCodable, DescriptionsRenderEachKind) {
  EXPECT_EQ(AnyCodable().description(), "nil");
  EXPECT_EQ(AnyCodable(true).description(), "true");
  EXPECT_EQ(AnyCodable(-3).description(), "-3");
  EXPECT_EQ(AnyCodable::uint64(18446744073709551615ULL).description(), "18446744073709551615");
  EXPECT_EQ(AnyCodable(1.0).description(), "1.0");
  EXPECT_EQ(AnyCodable(0.1).description(), "0.1");
  EXPECT_EQ(AnyCodable(1.1f).description(), "1.1");
  EXPECT_EQ(AnyCodable(1e16).description(), "1e+16");
  EXPECT_EQ(AnyCodable(0.00001).description(), "1e-05");
  EXPECT_EQ(AnyCodable("plain").description(), "plain");
  EXPECT_EQ(AnyCodable(zu::Date::fromTimeIntervalSince1970(1583105400)).description(),
            "2020-03-01 23:30:00 +0000");
  EXPECT_EQ(AnyCodable(AnyCodable::Array{1, "a", AnyCodable()}).description(), "[1, \"a\", nil]");
  EXPECT_EQ(AnyCodable(AnyCodable::Dictionary{{"k", "v\"q"}}).description(), "[\"k\": \"v\\\"q\"]");
  EXPECT_EQ(AnyCodable(AnyCodable::Dictionary{}).description(), "[:]");

  EXPECT_EQ(AnyCodable("x").debugDescription(), "AnyCodable(\"x\")");
  EXPECT_EQ(AnyCodable(2).debugDescription(), "AnyCodable(2)");
  EXPECT_EQ(zu::AnyEncodable("x").debugDescription(), "AnyEncodable(\"x\")");
  EXPECT_EQ(zu::AnyDecodable(true).debugDescription(), "AnyDecodable(true)");
  EXPECT_EQ(zu::AnyEncodable(3).description(), "3");
}

}  // namespace
