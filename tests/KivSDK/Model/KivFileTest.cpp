#include "KivSDK/Model/KivFile.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::KivFile;
using FileType = KivFile::FileType;

const zu::Date kTen = zu::Date(600000000.0);

TEST(KivFile, NewFileTakesItsKindFromTheExtension) {
  const KivFile file("IMG_0001", "JPG", kTen);
  EXPECT_EQ(file.name, "IMG_0001");
  EXPECT_EQ(file.ext, "JPG");
  EXPECT_EQ(file.fileType, FileType::image);
  EXPECT_FALSE(file.description || file.slug || file._metadata || file.hash || file.remoteUrl ||
               file._lastFileUploadAttemptDate);

  for (auto ext : {"jpg", "Jpeg", "png", "heic"})
    EXPECT_EQ(KivFile::fileTypeForExtension(ext), FileType::image) << ext;
  for (auto ext : {"mov", "MP4"}) EXPECT_EQ(KivFile::fileTypeForExtension(ext), FileType::video) << ext;
  for (auto ext : {"txt", "", "jpg.txt"})
    EXPECT_EQ(KivFile::fileTypeForExtension(ext), FileType::unknown) << ext;
  EXPECT_EQ(zu::fromRawValue<FileType>(2), FileType::video);
  EXPECT_FALSE(zu::fromRawValue<FileType>(3));
  EXPECT_FALSE(zu::fromRawValue<FileType>(-1));
}

TEST(KivFile, UploadIsAttemptedOncePerHalfHour) {
  const KivFile fresh("a", "jpg", kTen);
  EXPECT_TRUE(fresh.canAttemptFileUpload(kTen));
  const KivFile tried = fresh.updatingFileUploadAttemptDate(kTen);
  EXPECT_EQ(tried._lastFileUploadAttemptDate, kTen);
  EXPECT_FALSE(tried.canAttemptFileUpload(kTen.addingTimeInterval(1799)));
  EXPECT_TRUE(tried.canAttemptFileUpload(kTen.addingTimeInterval(1800)));
  EXPECT_FALSE(tried.canAttemptFileUpload(kTen.addingTimeInterval(-1)));  // an attempt date in the future

  KivFile uploaded = fresh;
  uploaded.remoteUrl = zu::URL::fromString("https://storage/x");
  EXPECT_FALSE(uploaded.canAttemptFileUpload(kTen));
  EXPECT_FALSE(
      uploaded.updatingFileUploadAttemptDate(kTen.addingTimeInterval(-7200)).canAttemptFileUpload(kTen));
}

TEST(KivFile, EqualityPrefersSlugsThenNameAndExtension) {
  KivFile a("a", "jpg", kTen), b("b", "jpg", kTen);
  a.slug = b.slug = "s1";
  EXPECT_EQ(a, b);
  b.slug = "s2";
  EXPECT_NE(a, b);

  KivFile c("a", "jpg", kTen.addingTimeInterval(99));
  EXPECT_EQ(a, c);  // only one has a slug
  EXPECT_NE(KivFile("a", "jpg", kTen), KivFile("a", "mov", kTen));
  EXPECT_TRUE(a.isIdenticalForUI(c));
  EXPECT_FALSE(a.isIdenticalForUI(b));
}

TEST(KivFile, OrdersByWholeSeconds) {
  const zu::Date tenOClock(600000000.0);
  const KivFile early("a", "jpg", tenOClock.addingTimeInterval(0.2));
  const KivFile late("b", "jpg", tenOClock.addingTimeInterval(0.9));
  const KivFile next("c", "jpg", tenOClock.addingTimeInterval(1.0));
  EXPECT_FALSE(early < late);
  EXPECT_FALSE(late < early);
  EXPECT_TRUE(early <= late && early >= late);
  EXPECT_TRUE(late < next);
  EXPECT_TRUE(next > early);

  std::vector<KivFile> files{next, late, early};
  std::stable_sort(files.begin(), files.end());
  EXPECT_EQ(files[0].name, "b");  // unordered among themselves: stable sort keeps them as given
  EXPECT_EQ(files[2].name, "c");
  // Before the reference date: truncation toward zero puts -0.5 and 0.5 in the same second.
  EXPECT_FALSE(KivFile("x", "jpg", zu::Date(-0.5)) < KivFile("y", "jpg", zu::Date(0.5)));
}

TEST(KivFileDeathTest, OrderingStopsOnDatesWithoutWholeSeconds) {
  const KivFile fine("a", "jpg", kTen);
  EXPECT_DEATH((void)(fine < KivFile("b", "jpg", zu::Date(std::numeric_limits<double>::quiet_NaN()))),
               "whole seconds");
  EXPECT_DEATH((void)(fine < KivFile("b", "jpg", zu::Date(1e19))), "whole seconds");
}

TEST(KivFile, MergeKeepsLocalValuesTheServiceLacks) {
  KivFile local("IMG", "jpg", kTen);
  local.hash = "abc";
  local.description = "front door";
  local.slug = "old-slug";
  local.setMetadata(zu::AnyCodable::Dictionary{{"camera", "rear"}});
  local = local.updatingFileUploadAttemptDate(kTen);

  KivFile service("IMG", "MOV", kTen.addingTimeInterval(5));
  service.slug = "new-slug";
  service.remoteUrl = zu::URL::fromString("https://storage/IMG.mov");

  const KivFile merged = local.merge(service);
  EXPECT_EQ(merged.ext, "MOV");
  EXPECT_EQ(merged.fileType, FileType::video);
  EXPECT_EQ(merged.dateTaken, service.dateTaken);
  EXPECT_EQ(merged.slug, "new-slug");
  EXPECT_EQ(merged.hash, "abc");
  EXPECT_EQ(merged.description, "front door");
  EXPECT_EQ(merged.remoteUrl, service.remoteUrl);
  EXPECT_EQ(merged.metadata(), (zu::AnyCodable::Dictionary{{"camera", "rear"}}));
  EXPECT_FALSE(merged._lastFileUploadAttemptDate);  // the attempt date is the newer copy's
}

TEST(KivFile, MetadataIsKeptFlatWithTextLeaves) {
  KivFile file("a", "jpg", kTen);
  file.setMetadata(
      zu::AnyCodable::Dictionary{{"gps", zu::AnyCodable::Dictionary{{"lat", 48.5}, {"ok", true}}}});
  EXPECT_EQ(file._metadata->at({"gps", "lat"}), zu::AnyCodable("48.5"));
  EXPECT_EQ(
      file.metadata(),
      (zu::AnyCodable::Dictionary{{"gps", zu::AnyCodable::Dictionary{{"lat", "48.5"}, {"ok", "true"}}}}));
  file.setMetadata(std::nullopt);
  EXPECT_FALSE(file._metadata);
  EXPECT_FALSE(file.metadata());
}

TEST(KivFile, LivesInTheMediaFolder) {
  testing_support::ScopedApplicationData data;
  const KivFile photo("photo", "jpg", kTen);
  EXPECT_EQ(photo.fileURL().path(), (data.path() / "Documents" / "Kiv" / "photo.jpg").string());
  EXPECT_FALSE(photo.localFileLocation());
  EXPECT_FALSE(photo.hasLocalFile());
  testing_support::writeFile(photo.fileURL().path(), "bytes");
  EXPECT_EQ(photo.localFileLocation(), photo.fileURL());
  EXPECT_TRUE(photo.hasLocalFile());
  EXPECT_EQ(KivFile("noext", "", kTen).fileURL().lastPathComponent(), "noext");
}

TEST(KivFile, NamesThatAreNotPlainFileNamesHaveNoLocalLocation) {
  testing_support::ScopedApplicationData data;
  // Something real at the place each hostile name points to, so only the name check can keep it out.
  testing_support::writeFile(data.path() / "Documents" / "secret.jpg", "secret");
  for (const auto& [name, ext] :
       std::vector<std::pair<std::string, std::string>>{{"../secret", "jpg"},
                                                        {"..", "jpg"},
                                                        {".", "jpg"},
                                                        {"", "jpg"},
                                                        {"a/../../secret", "jpg"},
                                                        {"x", "/../../secret.jpg"}}) {
    const KivFile file(name, ext, kTen);
    EXPECT_FALSE(file.hasPlainFileName()) << name << "." << ext;
    EXPECT_FALSE(file.localFileLocation()) << name << "." << ext;
    EXPECT_FALSE(file.withCalculatedHash().hash) << name << "." << ext;
  }
}

}  // namespace
