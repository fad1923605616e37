#include "ZuFoundation/URL.hpp"

#include <gtest/gtest.h>

namespace {

using zu::URL;

TEST(URL, FromStringFollowsThePlatformRules) {
  EXPECT_FALSE(URL::fromString(""));
  EXPECT_FALSE(URL::fromString("https://example.org/a b"));
  EXPECT_FALSE(URL::fromString("https://example.org/<x>"));
  EXPECT_FALSE(URL::fromString("https://example.org/100%"));
  EXPECT_FALSE(URL::fromString("https://example.org/a#b#c"));
  EXPECT_FALSE(URL::fromString("1http://example.org"));
  EXPECT_FALSE(URL::fromString("https://example.org/caf\xC3\xA9"));
  EXPECT_TRUE(URL::fromString("relative/path"));
  EXPECT_TRUE(URL::fromString("mailto:someone@example.org"));

  const auto url = URL::fromString("HTTPS://user@Example.org:8443/a%20b/c.jpg?x=2&y=%C3%A9#top");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->absoluteString(), "HTTPS://user@Example.org:8443/a%20b/c.jpg?x=2&y=%C3%A9#top");
  EXPECT_EQ(url->scheme(), "https");
  EXPECT_EQ(url->host(), "Example.org");
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->path(), "/a b/c.jpg");
  EXPECT_EQ(url->query(), "x=2&y=%C3%A9");
  EXPECT_EQ(url->queryItems(), (std::vector<URL::QueryItem>{{"x", "2"}, {"y", "\xC3\xA9"}}));
  EXPECT_EQ(url->lastPathComponent(), "c.jpg");
  EXPECT_EQ(url->pathExtension(), "jpg");
}

TEST(URL, FileURLsAndPathOperations) {
  const URL folder = URL::fileURLWithPath("/data/My Documents", true);
  EXPECT_EQ(folder.absoluteString(), "file:///data/My%20Documents/");
  EXPECT_TRUE(folder.isFileURL());
  EXPECT_EQ(folder.path(), "/data/My Documents");

  const URL photo = folder.appendingPathComponent("IMG 1").appendingPathExtension("jpg");
  EXPECT_EQ(photo.absoluteString(), "file:///data/My%20Documents/IMG%201.jpg");
  EXPECT_EQ(photo.path(), "/data/My Documents/IMG 1.jpg");
  EXPECT_EQ(photo.pathExtension(), "jpg");
  EXPECT_EQ(photo.deletingLastPathComponent(), folder);
  EXPECT_EQ(folder.appendingPathComponent("x").appendingPathExtension(""),
            folder.appendingPathComponent("x"));
  EXPECT_EQ(folder.appendingPathComponent("sub", true).appendingPathExtension("d").absoluteString(),
            "file:///data/My%20Documents/sub.d/");
  EXPECT_EQ(URL::fileURLWithPath("/a/.hidden").pathExtension(), "");
}

TEST(URL, QueryItemsAreAppendedAfterExistingOnes) {
  const auto url = URL::fromString("https://example.org/v1/reports/?x=2");
  ASSERT_TRUE(url);
  const URL merged = url->appendingQueryItems({{"a", "1"}, {"q", "a b&c=d"}});
  EXPECT_EQ(merged.absoluteString(), "https://example.org/v1/reports/?x=2&a=1&q=a%20b%26c%3Dd");
  EXPECT_EQ(merged.queryItems(), (std::vector<URL::QueryItem>{{"x", "2"}, {"a", "1"}, {"q", "a b&c=d"}}));
  EXPECT_EQ(URL::fromString("https://h/p")->appendingQueryItems({{"a", "1"}}).absoluteString(),
            "https://h/p?a=1");
}

}  // namespace
