#include "ZuLogger/ZuLogger.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zu::ZuLogger;
using Level = zu::ZuLogger::LogLevel;

struct ZuNetworking {};
namespace Module {
struct Uploader {};
template <class T>
struct Box {};
}  // namespace Module

class Capture : public ::testing::Test {
 protected:
  void SetUp() override {
    ZuLogger::setSink([this](std::string_view line) { lines.emplace_back(line); });
  }
  void TearDown() override {
    ZuLogger::setSink({});
    ZuLogger::setLogLevel(Level::none);
    ZuLogger::setClassNamesToInclude({});
  }
  void logAllLevels(const std::type_info* cls) {
    for (Level level : {Level::none, Level::error, Level::warning, Level::info, Level::debug}) {
      ZuLogger::log("m", cls, level);
    }
  }
  std::vector<std::string> lines;
};

TEST_F(Capture, SilentByDefaultAndNoneIsNeverPrinted) {
  EXPECT_EQ(ZuLogger::logLevel(), Level::none);
  logAllLevels(nullptr);
  EXPECT_TRUE(lines.empty());
  ZuLogger::setLogLevel(Level::debug);
  ZuLogger::log("never", nullptr, Level::none);
  EXPECT_TRUE(lines.empty());
}

TEST_F(Capture, PrintsLevelsUpToLogLevelWithTagsAndLineFormat) {
  ZuLogger::setLogLevel(Level::info);
  logAllLevels(&typeid(ZuNetworking));
  EXPECT_EQ(lines, (std::vector<std::string>{"[Zu] (E) ZuNetworking: m", "[Zu] (W) ZuNetworking: m",
                                             "[Zu] (I) ZuNetworking: m"}));
}

TEST_F(Capture, ClassNamesToIncludeNarrowsNamedClassesButNotNoClass) {
  ZuLogger::setLogLevel(Level::debug);
  ZuLogger::setClassNamesToInclude({"ZuNetworking"});
  ZuLogger::log("a", &typeid(ZuNetworking), Level::debug);
  ZuLogger::log("b", &typeid(Module::Uploader), Level::debug);
  ZuLogger::log("c", nullptr, Level::error);
  EXPECT_EQ(lines, (std::vector<std::string>{"[Zu] (D) ZuNetworking: a", "[Zu] (E) NoClass: c"}));
}

TEST(ZuLogger, ClassNameDropsNamespacesAndTemplateArguments) {
  EXPECT_EQ(ZuLogger::className(typeid(Module::Uploader)), "Uploader");
  EXPECT_EQ(ZuLogger::className(typeid(Module::Box<Module::Uploader>)), "Box");
  EXPECT_EQ(ZuLogger::className(typeid(int)), "int");
}

TEST(ZuLogger, RawValuesOutsideZeroToFourAreNoLevel) {
  EXPECT_EQ(zu::fromRawValue<Level>(4), Level::debug);
  EXPECT_EQ(zu::fromRawValue<Level>(0), Level::none);
  EXPECT_FALSE(zu::fromRawValue<Level>(5));
  EXPECT_FALSE(zu::fromRawValue<Level>(-1));
}

TEST(ZuLogger, WritesToStandardOutputWithoutASink) {
  ZuLogger::setLogLevel(Level::warning);
  ::testing::internal::CaptureStdout();
  ZuLogger::log("disk low", nullptr, Level::warning);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[Zu] (W) NoClass: disk low\n");
  ZuLogger::setLogLevel(Level::none);
}

}  // namespace
