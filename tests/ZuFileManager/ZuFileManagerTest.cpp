#include "ZuFileManager/ZuFileManager.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "support/TemporaryDirectory.hpp"

namespace {

using testing_support::readFile;
using testing_support::writeFile;
using zu::ZuFileManager;
namespace fs = std::filesystem;

struct MoveOutcome {
  int calls = 0;
  bool success = false;
  std::optional<zu::Error> error;
};

MoveOutcome move(const fs::path& from, const fs::path& to) {
  MoveOutcome outcome;
  ZuFileManager::moveFile(zu::URL::fileURLWithPath(from.string()), zu::URL::fileURLWithPath(to.string()),
                          [&](bool success, std::optional<zu::Error> error) {
                            ++outcome.calls;
                            outcome.success = success;
                            outcome.error = std::move(error);
                          });
  return outcome;
}

TEST(ZuFileManager, DocumentsLiveInTheApplicationDataFolder) {
  testing_support::ScopedApplicationData data;
  EXPECT_EQ(ZuFileManager::applicationDataDirectory(), data.path().string());
  const zu::URL documents = ZuFileManager::documentsDirectory();
  EXPECT_EQ(documents.path(), (data.path() / "Documents").string());
  EXPECT_TRUE(fs::is_directory(documents.path()));

  const zu::URL media = ZuFileManager::documentsSubdirectory("Kiv");
  EXPECT_EQ(media.absoluteString(), documents.absoluteString() + "Kiv/");
  fs::remove_all(media.path());
  EXPECT_TRUE(fs::is_directory(ZuFileManager::documentsSubdirectory("Kiv").path()));  // re-created
}

// The environment changes on the main thread while no other thread runs.
// NOLINTBEGIN(concurrency-mt-unsafe)
TEST(ZuFileManager, DefaultFolderFollowsXdgDataHome) {
  testing_support::TemporaryDirectory home;
  ::setenv("XDG_DATA_HOME", home.path().c_str(), 1);
  EXPECT_EQ(ZuFileManager::applicationDataDirectory(),
            (home.path() / program_invocation_short_name).string());
  ::unsetenv("XDG_DATA_HOME");
  EXPECT_TRUE(ZuFileManager::applicationDataDirectory().ends_with(std::string("/.local/share/") +
                                                                  program_invocation_short_name));
}
// NOLINTEND(concurrency-mt-unsafe)

TEST(ZuFileManager, PlainPathComponents) {
  EXPECT_TRUE(ZuFileManager::isPlainPathComponent("IMG_0001"));
  EXPECT_TRUE(ZuFileManager::isPlainPathComponent("..."));
  for (std::string_view bad : {std::string_view(""), std::string_view("."), std::string_view(".."),
                               std::string_view("a/b"), std::string_view("/"), std::string_view("a\0b", 3)}) {
    EXPECT_FALSE(ZuFileManager::isPlainPathComponent(bad)) << bad;
  }
}

TEST(ZuFileManager, MoveReplacesTheDestination) {
  testing_support::TemporaryDirectory folder;
  writeFile(folder.path() / "new", "new content");
  writeFile(folder.path() / "old", "old content that is longer");
  const auto outcome = move(folder.path() / "new", folder.path() / "old");
  EXPECT_EQ(outcome.calls, 1);
  EXPECT_TRUE(outcome.success);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(readFile(folder.path() / "old"), "new content");
  EXPECT_FALSE(fs::exists(folder.path() / "new"));
}

TEST(ZuFileManager, FailedMoveReportsTheErrorAndKeepsTheSource) {
  testing_support::TemporaryDirectory folder;
  const auto missing = move(folder.path() / "absent", folder.path() / "target");
  EXPECT_EQ(missing.calls, 1);
  EXPECT_FALSE(missing.success);
  ASSERT_TRUE(missing.error);
  EXPECT_EQ(missing.error->code(), ENOENT);

  writeFile(folder.path() / "source", "keep me");
  const auto noFolder = move(folder.path() / "source", folder.path() / "no-such-folder" / "target");
  EXPECT_FALSE(noFolder.success);
  EXPECT_EQ(readFile(folder.path() / "source"), "keep me");
}

TEST(ZuFileManager, MovesAcrossFileSystemsByCopying) {
  testing_support::TemporaryDirectory folder;
  const fs::path shm = "/dev/shm";
  struct stat here {
  }, there{};
  if (::stat(folder.path().c_str(), &here) != 0 || ::stat(shm.c_str(), &there) != 0 ||
      here.st_dev == there.st_dev) {
    GTEST_SKIP() << "needs /dev/shm on a file system of its own";
  }
  const fs::path source = shm / ("kivsdk-move-" + std::to_string(::getpid()));
  writeFile(source, std::string(3 << 20, 'x'));
  writeFile(folder.path() / "target", "old");
  const auto outcome = move(source, folder.path() / "target");
  EXPECT_TRUE(outcome.success);
  EXPECT_EQ(readFile(folder.path() / "target"), std::string(3 << 20, 'x'));
  EXPECT_FALSE(fs::exists(source));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()),
            1);  // no temp file left
}

}  // namespace

namespace {

TEST(ZuFileManager, WriteReadAndRemoveFiles) {
  testing_support::TemporaryDirectory folder;
  const zu::URL file = zu::URL::fileURLWithPath((folder.path() / "photo 1.jpg").string());
  EXPECT_FALSE(ZuFileManager::contents(file.path()));
  EXPECT_TRUE(ZuFileManager::write({1, 2, 3}, file));
  EXPECT_TRUE(ZuFileManager::write({4, 5}, file));  // replaces
  EXPECT_EQ(ZuFileManager::contents(file.path()), (zu::Data{4, 5}));
  EXPECT_EQ(fs::status(file.path()).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 1);

  EXPECT_TRUE(ZuFileManager::removeItem(file));
  EXPECT_FALSE(ZuFileManager::fileExists(file));
  const auto removedAgain = ZuFileManager::removeItem(file);
  ASSERT_FALSE(removedAgain);
  EXPECT_EQ(removedAgain.error(), zu::Error::posix(ENOENT));
  const zu::URL nowhere = zu::URL::fileURLWithPath((folder.path() / "gone" / "x.jpg").string());
  const auto writtenNowhere = ZuFileManager::write({1}, nowhere);
  ASSERT_FALSE(writtenNowhere);
  EXPECT_EQ(writtenNowhere.error(), zu::Error::posix(ENOENT));
}

}  // namespace
