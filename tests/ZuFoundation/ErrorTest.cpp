#include "ZuFoundation/Error.hpp"

#include <gtest/gtest.h>

#include <cerrno>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Result.hpp"

namespace {

// The codes callers match are the platform's numbers, which errors kept or logged elsewhere carry.
static_assert(zu::CocoaError::propertyListReadCorrupt == 3840 && zu::CocoaError::coderReadCorrupt == 4864 &&
              zu::CocoaError::coderInvalidValue == 4866);

TEST(Error, LocalizedDescriptionComesFromUserInfoThenTheDomain) {
  EXPECT_EQ(zu::Error("com.example", 7, {{"NSLocalizedDescription", "Broken."}}).localizedDescription(),
            "Broken.");
  EXPECT_EQ(zu::Error("com.example", 7).localizedDescription(),
            "The operation couldn’t be completed. (com.example error 7.)");
  EXPECT_EQ(zu::Error::posix(ENOENT).localizedDescription(),
            "The operation couldn’t be completed. No such file or directory");
  EXPECT_EQ(zu::Error("NSCocoaErrorDomain", 3840).localizedDescription(),
            "The data couldn’t be read because it isn’t in the correct format.");
}

TEST(Result, HoldsAValueOrAnError) {
  zu::Result<int> good = 4;
  ASSERT_TRUE(good);
  EXPECT_EQ(*good, 4);
  zu::Result<int> bad = zu::Error::posix(EIO);
  ASSERT_FALSE(bad.has_value());
  EXPECT_EQ(bad.error().code(), EIO);
  zu::Result<void> done;
  EXPECT_TRUE(done);
  EXPECT_EQ(zu::Result<void>(zu::Error::posix(EIO)).error().domain(), "NSPOSIXErrorDomain");
}

TEST(ResultDeathTest, AskingForTheMissingSideStopsTheProgram) {
  zu::Result<int> bad = zu::Error::posix(EIO);
  EXPECT_DEATH((void)bad.value(), "Fatal error: Result::value\\(\\) called on a failed result");
  zu::Result<int> good = 1;
  EXPECT_DEATH((void)good.error(), "Result::error\\(\\) called on a successful result");
}

}  // namespace
