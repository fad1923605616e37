#include "AnyCodable/MetadataFlattening.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using zu::AnyCodable;
using zu::KeyPath;

TEST(MetadataFlattening, FlattensNestedMapsToTextLeaves) {
  const AnyCodable::Dictionary nested{
      {"a", AnyCodable::Dictionary{{"b", 1}, {"c", AnyCodable::Dictionary{{"d", true}}}}},
      {"e", "x"},
      {"f.g", 2.5}};
  auto pairs = zu::flaten(nested, {});
  std::sort(pairs.begin(), pairs.end());
  const std::vector<std::pair<KeyPath, std::string>> expected{
      {{"a", "b"}, "1"}, {{"a", "c", "d"}, "true"}, {{"e"}, "x"}, {{"f.g"}, "2.5"}};
  EXPECT_EQ(pairs, expected);
  EXPECT_EQ(zu::flaten(nested, {"top"}).front().first, (KeyPath{"top", "a", "b"}));
  EXPECT_TRUE(zu::flaten({}, {}).empty());

  const auto flat = zu::flatKeysEndCodableValueDictionary(nested);
  EXPECT_EQ(flat.at({"a", "c", "d"}), AnyCodable("true"));
}

TEST(MetadataFlattening, RebuildsTheSameShapeWithTextLeaves) {
  const AnyCodable::Dictionary nested{
      {"a", AnyCodable::Dictionary{{"b", 1}, {"empty", AnyCodable::Dictionary{}}}}, {"e", "x"}};
  const auto flat = zu::flatKeysEndCodableValueDictionary(nested);
  const auto rebuilt = zu::dictionary({flat.begin(), flat.end()});
  ASSERT_TRUE(rebuilt);
  const AnyCodable::Dictionary expected{{"a", AnyCodable::Dictionary{{"b", "1"}}}, {"e", "x"}};
  EXPECT_EQ(*rebuilt, expected);
}

TEST(MetadataFlattening, LeafWinsOverBranchAndEmptyPathsAreRejected) {
  EXPECT_EQ(*zu::dictionary({{{"a"}, 1}, {{"a", "b"}, 2}}), (AnyCodable::Dictionary{{"a", 1}}));
  EXPECT_EQ(*zu::dictionary({{{"a", "b"}, 2}, {{"a"}, 1}}), (AnyCodable::Dictionary{{"a", 1}}));
  EXPECT_EQ(*zu::dictionary({}), AnyCodable::Dictionary{});
  EXPECT_FALSE(zu::dictionary({{{}, 1}}));
}

}  // namespace
