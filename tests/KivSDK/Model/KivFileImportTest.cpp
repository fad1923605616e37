#include "KivSDK/Model/KivFileImport.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ZuDigest/ZuDigest.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using kiv::KivFile;
using kiv::KivReport;
using testing_support::readFile;
using testing_support::ScopedApplicationData;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

/// 2020-03-01 23:30:00.25 GMT; files are named in GMT, whatever the time zone.
constexpr timespec kChanged{1583105400, 250000000};
constexpr const char* kCaptureName = "20200301_233000";
const kiv::MediaImportOptions kMove{.move = true, .dateTaken = std::nullopt};

std::string sha256(const std::string& bytes) { return zu::hexString(zu::sha256(bytes)); }

/// The names of the files in the media folder, hidden ones included.
std::set<std::string> mediaFolder() {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(KivFile::kivDirectory().path())) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

class KivFileImport : public ::testing::Test {
 protected:
  /// A photo or video written outside the media folder, last changed at `kChanged`.
  zu::URL capture(const std::string& name, const std::string& bytes) {
    const auto path = captures.path() / name;
    writeFile(path, bytes);
    const timespec times[2] = {kChanged, kChanged};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    return zu::URL::fileURLWithPath(path.string());
  }
  /// `file` imported into `report`, which gains it; fails the test when it is refused.
  KivFile imported(const zu::URL& file, KivReport& into, const kiv::MediaImportOptions& options = {}) {
    auto record = kiv::importMediaFile(file, into, {}, options);
    EXPECT_TRUE(record) << record.error().localizedDescription();
    if (!record) return KivFile("", "", zu::Date());
    into.files.push_back(*record);
    return *record;
  }

  ScopedApplicationData appData;
  TemporaryDirectory captures;
  KivReport report{"Kitchen"};
};

TEST_F(KivFileImport, ACopyIsNamedByItsCaptureTimeAndHashed) {
  const zu::URL photo = capture("Leak.JPG", "drops on the floor");
  const KivFile file = imported(photo, report);
  EXPECT_EQ(file.name, kCaptureName);
  EXPECT_EQ(file.ext, "jpg");
  EXPECT_EQ(file.fileType, KivFile::FileType::image);
  EXPECT_EQ(file.dateTaken, zu::Date::fromTimeIntervalSince1970(1583105400.25));
  EXPECT_EQ(file.description, "Leak.JPG");
  EXPECT_EQ(file.hash, sha256("drops on the floor"));
  EXPECT_EQ(readFile(file.fileURL().path()), "drops on the floor");
  EXPECT_EQ(readFile(photo.path()), "drops on the floor") << "copied, not moved";
  EXPECT_EQ(mediaFolder(), std::set<std::string>{file.name + ".jpg"}) << "no copy left beside it";

  const KivFile dated =
      imported(capture("clip.mp4", "moving"), report, {.move = false, .dateTaken = zu::Date(0)});
  EXPECT_EQ(dated.dateTaken, zu::Date(0));
  EXPECT_EQ(dated.name, "20010101_000000");
  EXPECT_EQ(dated.fileType, KivFile::FileType::video);
}

TEST_F(KivFileImport, ANameInUseByAFileOrARecordIsNeverTaken) {
  // A file of the media folder that no record names, and a record of another report whose content is still
  // on the service only: neither may be replaced, now or by a later download.
  writeFile(KivFile::kivDirectory().path() + std::string("/") + kCaptureName + ".jpg", "someone's evidence");
  KivReport other("Garden");
  other.files.emplace_back(std::string(kCaptureName) + "_2", "jpg", zu::Date());

  const auto third = kiv::importMediaFile(capture("a.jpg", "first"), report, {other});
  ASSERT_TRUE(third) << third.error().localizedDescription();
  EXPECT_EQ(third->name, std::string(kCaptureName) + "_3");
  EXPECT_EQ(readFile(KivFile::kivDirectory().path() + std::string("/") + kCaptureName + ".jpg"),
            "someone's evidence");
  report.files.push_back(*third);
  EXPECT_EQ(imported(capture("b.jpg", "second"), report).name, std::string(kCaptureName) + "_2")
      << "a name used by no report is free again";
}

TEST_F(KivFileImport, TheSameContentTwiceInOneReportIsRefused) {
  const KivFile first = imported(capture("a.jpg", "one picture"), report);
  const std::set<std::string> before = mediaFolder();

  const auto again = kiv::importMediaFile(capture("copy of a.jpg", "one picture"), report, {});
  ASSERT_FALSE(again);
  EXPECT_EQ(again.error().code(), EEXIST);
  EXPECT_EQ(again.error().localizedDescription(), (captures.path() / "copy of a.jpg").string() +
                                                      " is already in report \"Kitchen\", as " + first.name +
                                                      ".jpg");
  EXPECT_EQ(mediaFolder(), before);

  KivReport other("Garden");
  EXPECT_TRUE(kiv::importMediaFile(capture("copy of a.jpg", "one picture"), other, {report}))
      << "another report may hold the same content";
}

TEST_F(KivFileImport, AMoveTakesTheFileItselfButNeverOutOfTheMediaFolder) {
  const zu::URL video = capture("clip.MP4", "moving pictures");
  const KivFile moved = imported(video, report, kMove);
  EXPECT_FALSE(zu::ZuFileManager::fileExists(video));
  EXPECT_EQ(readFile(moved.fileURL().path()), "moving pictures");
  EXPECT_EQ(moved.hash, sha256("moving pictures"));

  KivReport other("Garden");
  const auto taken = kiv::importMediaFile(moved.fileURL(), other, {report}, kMove);
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code(), EINVAL);
  EXPECT_NE(taken.error().localizedDescription().find("is in the media folder"), std::string::npos);
  EXPECT_EQ(readFile(moved.fileURL().path()), "moving pictures");
}

TEST_F(KivFileImport, ConcurrentImportsOfOneCaptureTimeEachGetANameOfTheirOwn) {
  constexpr int kPerThread = 25;
  std::vector<zu::URL> sources;
  sources.reserve(std::size_t{2} * kPerThread);
  for (int i = 0; i < 2 * kPerThread; ++i)
    sources.push_back(capture(std::to_string(i) + ".jpg", std::to_string(i)));
  std::vector<std::vector<KivFile>> placed(2);
  {
    std::vector<std::jthread> threads;
    threads.reserve(2);
    for (int t = 0; t < 2; ++t) {
      threads.emplace_back([&, t] {
        // Each thread imports into a report of its own and knows nothing of the other's names.
        const KivReport own("R" + std::to_string(t));
        for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i) {
          if (auto file = kiv::importMediaFile(sources[i], own, {})) placed[t].push_back(*file);
        }
      });
    }
  }
  std::set<std::string> names;
  for (const auto& files : placed) {
    ASSERT_EQ(files.size(), static_cast<std::size_t>(kPerThread));
    for (const KivFile& file : files) {
      names.insert(file.name);
      EXPECT_EQ(sha256(readFile(file.fileURL().path())), file.hash) << file.name << " was replaced";
    }
  }
  EXPECT_EQ(names.size(), static_cast<std::size_t>(2 * kPerThread));
}

struct BadSource {
  const char* label;
  /// Makes the source in the folder given; answers its path.
  std::function<fs::path(const fs::path&)> make;
  int code;
  const char* message;
};

void PrintTo(const BadSource& source, std::ostream* out) { *out << source.label; }

class KivFileImportRefuses : public KivFileImport, public ::testing::WithParamInterface<BadSource> {};

TEST_P(KivFileImportRefuses, WithAMessageAndNothingPlaced) {
  const fs::path source = GetParam().make(captures.path());
  const auto before = fs::exists(source) ? fs::status(source).type() : fs::file_type::not_found;
  for (const bool move : {false, true}) {
    const auto refused = kiv::importMediaFile(zu::URL::fileURLWithPath(source.string()), report, {},
                                              {.move = move, .dateTaken = std::nullopt});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code(), GetParam().code);
    const std::string text = refused.error().localizedDescription();
    EXPECT_NE(text.find(source.string()), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with(GetParam().message)) << text;
    EXPECT_TRUE(mediaFolder().empty());
    EXPECT_EQ(fs::exists(source) ? fs::status(source).type() : fs::file_type::not_found, before);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Sources, KivFileImportRefuses,
    ::testing::Values(BadSource{"missing", [](const fs::path& in) { return in / "gone.jpg"; }, ENOENT,
                                ": No such file or directory"},
                      BadSource{"folder",
                                [](const fs::path& in) {
                                  fs::create_directory(in / "album.jpg");
                                  return in / "album.jpg";
                                },
                                EISDIR, " is a folder, not a media file"},
                      BadSource{"pipe",
                                [](const fs::path& in) {
                                  ::mkfifo((in / "pipe.jpg").c_str(), 0600);
                                  return in / "pipe.jpg";
                                },
                                EINVAL, " is not a regular file"},
                      BadSource{"empty",
                                [](const fs::path& in) {
                                  writeFile(in / "empty.jpg", "");
                                  return in / "empty.jpg";
                                },
                                EINVAL, " is empty"},
                      BadSource{"no_extension",
                                [](const fs::path& in) {
                                  writeFile(in / "photo", "bytes");
                                  return in / "photo";
                                },
                                EINVAL, " has no extension, so its kind of media cannot be told"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace
