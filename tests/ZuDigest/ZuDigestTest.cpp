#include "ZuDigest/ZuDigest.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <random>

#include "support/TemporaryDirectory.hpp"

namespace {

TEST(ZuDigest, KnownDigestsAndHexText) {
  EXPECT_EQ(zu::hexString(zu::Data{0x00, 0x0f, 0xa0}), "000fa0");
  EXPECT_EQ(zu::hexString(zu::Data{}), "");
  EXPECT_EQ(zu::hexString(zu::sha256(std::string_view())),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(zu::hexString(zu::sha256(zu::Data{'a', 'b', 'c'})),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(zu::hexString(zu::md5("")), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(zu::hexString(zu::md5("The quick brown fox jumps over the lazy dog")),
            "9e107d9d372bb6826bd81d3542a419d6");
  EXPECT_EQ(zu::sha256("abc").size(), 32U);
}

TEST(ZuDigest, FileDigestEqualsTheDigestOfTheWholeContent) {
  testing_support::TemporaryDirectory folder;
  std::mt19937 random(7);
  // Sizes around the block size, where a streaming mistake would show.
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, zu::fileDigestBlockSize - 1,
                           zu::fileDigestBlockSize, zu::fileDigestBlockSize * 2 + 3}) {
    std::string bytes(size, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(random());
    const auto path = folder.path() / ("f" + std::to_string(size));
    testing_support::writeFile(path, bytes);
    const auto digest = zu::sha256OfFile(path.string());
    ASSERT_TRUE(digest);
    EXPECT_EQ(*digest, zu::sha256(bytes)) << size;
  }
}

TEST(ZuDigest, FileDigestFailsWithThePosixError) {
  testing_support::TemporaryDirectory folder;
  const auto missing = zu::sha256OfFile((folder.path() / "missing").string());
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().domain(), "NSPOSIXErrorDomain");
  EXPECT_EQ(missing.error().code(), ENOENT);
  EXPECT_EQ(zu::sha256OfFile(folder.path().string()).error().code(), EISDIR);
}

}  // namespace
