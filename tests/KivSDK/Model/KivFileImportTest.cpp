#include "KivSDK/Model/KivFileImport.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "KivSDK/Model/KivModel.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::KivFile;
using kiv::KivModel;
using kiv::KivReport;
using testing_support::readFile;
using testing_support::ScopedApplicationData;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

/// 2020-03-01 23:30:00.25 GMT.
constexpr timespec kChanged{1583105400, 250000000};

/// A capture written outside the media folder, last changed at `kChanged`.
zu::URL capture(const TemporaryDirectory& folder, const std::string& name, const std::string& bytes) {
  const auto path = folder.path() / name;
  writeFile(path, bytes);
  const timespec times[2] = {kChanged, kChanged};
  EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  return zu::URL::fileURLWithPath(path.string());
}

std::string sha256(const std::string& bytes) { return zu::hexString(zu::sha256(bytes)); }

TEST(KivFileImport, AFileBecomesAHashedRecordWithItsBytesInTheMediaFolder) {
  const ScopedApplicationData appData;
  const TemporaryDirectory captures;
  const zu::URL video = capture(captures, "20200301_233000.mp4", "moving pictures");

  const auto file = kiv::importMediaFile(video);
  ASSERT_TRUE(file) << file.error().localizedDescription();
  EXPECT_EQ(file->name, "20200301_233000");
  EXPECT_EQ(file->ext, "mp4");
  EXPECT_EQ(file->fileType, KivFile::FileType::video);
  EXPECT_EQ(file->dateTaken, zu::Date::fromTimeIntervalSince1970(1583105400.25));
  EXPECT_EQ(file->hash, sha256("moving pictures"));
  EXPECT_EQ(readFile(file->fileURL().path()), "moving pictures");
  EXPECT_FALSE(zu::ZuFileManager::fileExists(video)) << "moved, not copied";

  // A file already in the media folder stays where it is.
  const auto again = kiv::importMediaFile(file->fileURL());
  ASSERT_TRUE(again);
  EXPECT_EQ(readFile(again->fileURL().path()), "moving pictures");

  const auto missing = kiv::importMediaFile(video);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error(), zu::Error::posix(ENOENT));
  const auto unnamed = kiv::importMediaFile(capture(captures, "..mp4", "x"));
  ASSERT_FALSE(unnamed);
  EXPECT_EQ(unnamed.error().localizedDescription(), "\"..mp4\" cannot name a file of a report");
}

TEST(KivFileImport, AStoredReportGainsTheFileByIdSlugOrNameAndOneIsMadeWhenMissing) {
  const ScopedApplicationData appData;
  const TemporaryDirectory captures;
  KivReport submitted("Kitchen");
  submitted.slug = "k1tch3n";
  KivReport other("Garden");
  static_cast<void>(KivModel::loadFromStore());  // a first launch: the store takes its format version
  KivModel::persist({submitted, other});

  const auto bySlug = kiv::addMediaFileToStoredReport(capture(captures, "a.jpg", "first"), "k1tch3n");
  ASSERT_TRUE(bySlug);
  EXPECT_FALSE(bySlug->reportCreated);
  EXPECT_EQ(bySlug->report.name, "Kitchen");
  // The same name again replaces the file; the report's digest follows its files.
  const auto byId =
      kiv::addMediaFileToStoredReport(capture(captures, "a.jpg", "second"), submitted.id->uuidString());
  ASSERT_TRUE(byId);
  ASSERT_EQ(byId->report.files.size(), 1U);
  EXPECT_EQ(byId->report.files[0].hash, sha256("second"));
  EXPECT_EQ(byId->report.hash, sha256(zu::hexString(zu::sha256("second"))));

  const auto created = kiv::addMediaFileToStoredReport(capture(captures, "b.mp4", "third"), "Attic");
  ASSERT_TRUE(created);
  EXPECT_TRUE(created->reportCreated);
  EXPECT_FALSE(kiv::addMediaFileToStoredReport(zu::URL::fileURLWithPath("/nonexistent/c.jpg"), "Cellar"));

  std::vector<KivReport> stored = KivModel::loadFromStore();
  ASSERT_EQ(stored.size(), 3U) << "nothing is stored for a file that could not be added";
  EXPECT_EQ(stored[0].files.size(), 1U);
  EXPECT_TRUE(stored[1].files.empty());
  EXPECT_EQ(stored[2].name, "Attic");
  EXPECT_EQ(kiv::findReport(stored, "Garden") - stored.begin(), 1);
  EXPECT_EQ(kiv::findReport(stored, "Cellar"), stored.end());
}

}  // namespace
