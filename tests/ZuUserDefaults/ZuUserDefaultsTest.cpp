#include "ZuUserDefaults/ZuUserDefaults.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ZuFoundation/detail/Plist.hpp"
#include "ZuLogger/ZuLogger.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using testing_support::readFile;
using testing_support::ScopedApplicationData;
using testing_support::writeFile;
using zu::ZuUserDefaults;

class ZuUserDefaultsTest : public ::testing::Test {
 protected:
  ScopedApplicationData appData_;
  ZuUserDefaults& defaults_ = ZuUserDefaults::standard();
};

TEST_F(ZuUserDefaultsTest, MissingAndMismatchedValuesReadAsZeroOrNothing) {
  EXPECT_EQ(defaults_.integer("absent"), 0);
  EXPECT_FALSE(defaults_.data("absent"));

  ASSERT_TRUE(defaults_.set(-7, "number"));
  ASSERT_TRUE(defaults_.set(zu::Data{}, "empty"));
  ASSERT_TRUE(defaults_.set(zu::Data{0, 1, 0xFF}, "bytes"));
  EXPECT_EQ(defaults_.integer("number"), -7);
  EXPECT_EQ(defaults_.data("bytes"), (zu::Data{0, 1, 0xFF}));
  EXPECT_EQ(defaults_.data("empty"), zu::Data{});  // an empty buffer is a value, not a missing one
  EXPECT_FALSE(defaults_.data("number"));
  EXPECT_EQ(defaults_.integer("bytes"), 0);

  ASSERT_TRUE(defaults_.removeObject("bytes"));
  ASSERT_TRUE(defaults_.removeObject("never there"));
  EXPECT_FALSE(defaults_.data("bytes"));
  EXPECT_EQ(defaults_.integer("number"), -7);
}

TEST_F(ZuUserDefaultsTest, OneBinaryPlistBesideDocumentsAndNoLeftovers) {
  ASSERT_TRUE(defaults_.set(5, "version"));
  const auto file = appData_.path() / "UserDefaults.plist";
  EXPECT_EQ(ZuUserDefaults::filePath(), file.string());
  EXPECT_EQ(readFile(file).substr(0, 8), "bplist00");
  EXPECT_FALSE(std::filesystem::exists(file.string() + ".tmp"));
}

TEST_F(ZuUserDefaultsTest, UnreadableFileIsReplacedOnTheNextWrite) {
  writeFile(appData_.path() / "UserDefaults.plist", "not a property list");
  EXPECT_EQ(defaults_.integer("version"), 0);
  ASSERT_TRUE(defaults_.set(5, "version"));
  EXPECT_EQ(defaults_.integer("version"), 5);
}

// Every file kept aside beside the store, by name, with its bytes.
std::map<std::string, std::string> keptAside(const std::filesystem::path& folder) {
  std::map<std::string, std::string> kept;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("UserDefaults.plist.corrupt-")) kept[name] = readFile(entry.path());
  }
  return kept;
}

TEST_F(ZuUserDefaultsTest, UnreadableFileIsKeptAsideWithAWarningBeforeItIsReplaced) {
  std::vector<std::string> lines;
  zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::warning);
  zu::ZuLogger::setSink([&](std::string_view line) { lines.emplace_back(line); });
  const auto file = appData_.path() / "UserDefaults.plist";
  const std::string first("bplist00\0\xFF cut short", 20);
  writeFile(file, first);
  ASSERT_TRUE(defaults_.set(5, "version"));
  auto kept = keptAside(appData_.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept.begin()->second, first);
  EXPECT_TRUE(
      std::regex_match(kept.begin()->first, std::regex(R"(UserDefaults\.plist\.corrupt-\d{8}_\d{6})")));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].starts_with("[Zu] (W) ZuUserDefaults: Could not read ")) << lines[0];
  EXPECT_TRUE(lines[0].ends_with(kept.begin()->first)) << lines[0];

  // The new file holds the new value alone; a second fault, even within the same second, keeps the first
  // copy as it was.
  EXPECT_EQ(defaults_.integer("version"), 5);
  writeFile(file, "second fault");
  ASSERT_TRUE(defaults_.removeObject("version"));
  kept = keptAside(appData_.path());
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept.begin()->second, first);
  EXPECT_EQ(std::next(kept.begin())->second, "second fault");
  EXPECT_EQ(readFile(file).substr(0, 8), "bplist00");

  // A store that reads (or an empty one, which holds nothing) is replaced without a copy.
  writeFile(file, "");
  ASSERT_TRUE(defaults_.set(1, "version"));
  EXPECT_EQ(keptAside(appData_.path()).size(), 2u);
  zu::ZuLogger::setSink({});
  zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::none);
}

// libplist writes a key that is not UTF-8 cut short at its first bad byte, here onto the key being set.
TEST_F(ZuUserDefaultsTest, StoreThatWouldNotReadBackAsItWasIsKeptAside) {
  const std::string stored = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                             "<key>n\xB7ote</key><integer>70</integer></dict></plist>";
  writeFile(appData_.path() / "UserDefaults.plist", stored);
  ASSERT_TRUE(defaults_.set(1, "n"));
  EXPECT_EQ(defaults_.integer("n"), 1);
  const auto kept = keptAside(appData_.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept.begin()->second, stored);
}

TEST_F(ZuUserDefaultsTest, XmlFilesAreRead) {
  writeFile(appData_.path() / "UserDefaults.plist",
            R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
            R"(<key>n</key><integer>42</integer><key>d</key><data>AAE=</data></dict></plist>)");
  EXPECT_EQ(defaults_.integer("n"), 42);
  EXPECT_EQ(defaults_.data("d"), (zu::Data{0, 1}));
}

TEST_F(ZuUserDefaultsTest, WriteFailureIsAPosixError) {
  zu::ZuFileManager::setApplicationDataDirectory("/dev/null/app");
  const auto written = defaults_.set(1, "key");
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().domain(), "NSPOSIXErrorDomain");
  EXPECT_EQ(written.error().code(), ENOTDIR);
}

// Integers (equal ones stored once), data of every count width and a large buffer written from where it
// lies: the file is what libplist writes for the same dictionary, byte for byte.
TEST_F(ZuUserDefaultsTest, FileIsLaidOutAsLibplistLaysItOut) {
  zu::Data large(70'000);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
  ASSERT_TRUE(defaults_.set(5, "Kiv.ModelManager.Const.UD.version"));
  ASSERT_TRUE(defaults_.set(large, "large"));
  ASSERT_TRUE(defaults_.set(zu::Data(300, 1), "reports"));
  ASSERT_TRUE(defaults_.set(5, "same"));
  ASSERT_TRUE(defaults_.set(-7, "négatif"));
  ASSERT_TRUE(defaults_.set(zu::Data{}, "empty"));
  ASSERT_TRUE(defaults_.removeObject("reports"));
  EXPECT_EQ(defaults_.data("large"), large);
  EXPECT_EQ(defaults_.integer("négatif"), -7);

  const std::string file = readFile(appData_.path() / "UserDefaults.plist");
  const auto root = zu::detail::parsePlist(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
  ASSERT_TRUE(root);
  const zu::Data rewritten = zu::detail::binaryPlist(root.get());
  EXPECT_TRUE(std::string(rewritten.begin(), rewritten.end()) == file);  // too long to print
}

TEST_F(ZuUserDefaultsTest, SnapshotKeepsTheValuesOfOneRead) {
  ASSERT_TRUE(defaults_.set(5, "version"));
  ASSERT_TRUE(defaults_.set(zu::Data{1, 2, 3}, "bytes"));
  const auto snapshot = defaults_.snapshot();
  ASSERT_TRUE(defaults_.set(6, "version"));
  EXPECT_EQ(snapshot.integer("version"), 5);
  const auto bytes = snapshot.data("bytes");
  ASSERT_TRUE(bytes);
  EXPECT_EQ(zu::Data(bytes->begin(), bytes->end()), (zu::Data{1, 2, 3}));
  EXPECT_FALSE(snapshot.data("version"));
  EXPECT_EQ(defaults_.integer("version"), 6);
}

// A binary property list of a dictionary, from its members' encoded keys and values (one-byte offsets).
std::string binaryStore(const std::vector<std::pair<std::string, std::string>>& members) {
  std::string objects(1, static_cast<char>(0xD0 | members.size()));
  for (std::size_t i = 0; i < members.size(); ++i) objects += static_cast<char>(1 + 2 * i);
  for (std::size_t i = 0; i < members.size(); ++i) objects += static_cast<char>(2 + 2 * i);
  std::string table(1, 8);
  for (const auto& [key, value] : members) {
    for (const std::string* object : {&key, &value}) {
      table += static_cast<char>(8 + objects.size());
      objects += *object;
    }
  }
  const auto big = [](std::size_t value) { return std::string(7, '\0') + static_cast<char>(value); };
  return "bplist00" + objects + table + std::string(6, '\0') + "\x01\x01" + big(table.size()) + big(0) +
         big(8 + objects.size());
}

const std::pair<std::string, std::string> kVersion{"\x57version", std::string("\x10\x05", 2)};

struct PartStoreCase {
  const char* label;
  std::string stored;
};

class ZuUserDefaultsPartStoreTest : public ZuUserDefaultsTest,
                                    public ::testing::WithParamInterface<PartStoreCase> {};

// A store holding what cannot be written again as it is, beside its version: the next write keeps it aside
// whole, and the version with it.
TEST_P(ZuUserDefaultsPartStoreTest, IsKeptAsideAndKeepsWhatItCan) {
  writeFile(appData_.path() / "UserDefaults.plist", GetParam().stored);
  EXPECT_EQ(defaults_.integer("version"), 5);
  ASSERT_TRUE(defaults_.set(1, "fuzz"));
  EXPECT_EQ(defaults_.integer("version"), 5);
  EXPECT_EQ(defaults_.integer("fuzz"), 1);
  const auto kept = keptAside(appData_.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept.begin()->second, GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ZuUserDefaultsPartStoreTest,
    ::testing::Values(PartStoreCase{"ArrayValue", binaryStore({kVersion, {"\x54list", "\xA0"}})},
                      PartStoreCase{"Uid", binaryStore({kVersion, {"\x53uid", std::string("\x80\x00", 2)}})},
                      PartStoreCase{"RepeatedKey", binaryStore({kVersion, {"\x57version", "\x10\x07"}})},
                      PartStoreCase{"KeyNotUtf8", binaryStore({kVersion, {"\x52n\xB7", "\x10\x07"}})},
                      PartStoreCase{
                          "XmlDictionaryValue",
                          R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                          R"(<key>version</key><integer>5</integer><key>d</key><dict/></dict></plist>)"}),
    [](const auto& info) { return std::string(info.param.label); });

// Writers that each add their own keys: a lost read-modify-write would drop another writer's key.
TEST_F(ZuUserDefaultsTest, ConcurrentWritersInThreadsAndProcessesLoseNoKey) {
  constexpr int kWrites = 40;
  const auto writeKeys = [this](const std::string& prefix) {
    for (int i = 0; i < kWrites; ++i) {
      if (!defaults_.set(i, prefix + std::to_string(i))) return false;
    }
    return true;
  };
  std::vector<pid_t> children;
  for (const char* prefix : {"p1-", "p2-"}) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(writeKeys(prefix) ? 0 : 1);
    children.push_back(child);
  }
  std::thread thread([&] { EXPECT_TRUE(writeKeys("t-")); });
  EXPECT_TRUE(writeKeys("main-"));
  thread.join();
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  for (const char* prefix : {"p1-", "p2-", "t-", "main-"}) {
    for (int i = 1; i < kWrites; ++i)
      EXPECT_EQ(defaults_.integer(prefix + std::to_string(i)), i) << prefix << i;
  }
}

}  // namespace
