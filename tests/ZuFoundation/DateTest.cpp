#include "ZuFoundation/Date.hpp"

#include <gtest/gtest.h>

namespace {

TEST(Date, ConvertsBetweenReferenceDateAnd1970) {
  const auto date = zu::Date::fromTimeIntervalSince1970(978307200.0 + 1.5);
  EXPECT_DOUBLE_EQ(date.timeIntervalSinceReferenceDate(), 1.5);
  EXPECT_DOUBLE_EQ(date.addingTimeInterval(-1.5).timeIntervalSince1970(), 978307200.0);
  EXPECT_DOUBLE_EQ(date.timeIntervalSince(zu::Date()), 1.5);
}

}  // namespace
