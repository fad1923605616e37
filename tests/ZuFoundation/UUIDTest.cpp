#include "ZuFoundation/UUID.hpp"

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(UUID, NewIdentifiersAreRandomVersion4InUpperCase) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string text = zu::UUID().uuidString();
    ASSERT_EQ(text.size(), 36U);
    EXPECT_EQ(text[14], '4');
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos);
    EXPECT_EQ(text, [&] {
      std::string upper = text;
      for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      return upper;
    }());
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 100U);
}

TEST(UUID, ParsesEitherCaseAndRejectsMalformedText) {
  const auto parsed = zu::UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(zu::UUID::fromString(parsed->uuidString()), parsed);
  EXPECT_FALSE(zu::UUID::fromString("E621E1F8C36C495A93FC0C247A3E6E5F"));
  EXPECT_FALSE(zu::UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5G"));
  EXPECT_FALSE(zu::UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5"));
}

}  // namespace
