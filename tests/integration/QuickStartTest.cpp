// The README's quick start, compiled here as it stands and run against the reference service: its media
// imported, the report certified, the store holding the result, and a non-zero status when it cannot go on.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "KivSDK/API/detail/APIState.hpp"
#include "support/ServiceUnderTest.hpp"
#include "support/TemporaryDirectory.hpp"

// The example's own headers first, so that the renaming of its `main` below reaches nothing else.
#include <KivSDK/API/KivAPI.hpp>
#include <KivSDK/API/KivCertification.hpp>
#include <KivSDK/Model/KivFileImport.hpp>
#include <KivSDK/Model/KivModel.hpp>
#include <KivSDK/Model/KivReportList.hpp>
#include <future>
#include <iostream>

#define main quickStart                    // NOLINT: the example's `main`, called by the test
#include "../../examples/quick_start.cpp"  // NOLINT(bugprone-suspicious-include): compiled as it stands
#undef main

namespace {

namespace fs = std::filesystem;
using testing_support::writeFile;

struct ProgramRun {
  int status;
  std::string out;
  std::string err;
};

class QuickStart : public ::testing::Test {
 protected:
  void SetUp() override {
    kiv::detail::resetAPIState();
    kivtest::useTestService();
  }
  void TearDown() override { kiv::detail::resetAPIState(); }

  ProgramRun run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "quick_start");
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int status = quickStart(static_cast<int>(arguments.size()), argv.data());
    std::string out = ::testing::internal::GetCapturedStdout();
    return {status, std::move(out), ::testing::internal::GetCapturedStderr()};
  }

  testing_support::ScopedApplicationData data;
  testing_support::TemporaryDirectory media;
};

TEST_F(QuickStart, CertifiesItsFilesAndSaysWhyWhenItCannot) {
  const fs::path photo = media.path() / "leak.jpg";
  const fs::path video = media.path() / "leak.mp4";
  writeFile(photo, std::string(300 << 10, 'p'));
  writeFile(video, "a short clip");

  const ProgramRun certified = run({"Water damage, kitchen", photo.string(), video.string()});
  ASSERT_EQ(certified.status, 0) << certified.err;
  EXPECT_NE(certified.out.find("Water damage, kitchen: confirmed\n"), std::string::npos) << certified.out;
  EXPECT_NE(certified.out.find(".jpg: 307200 of 307200 bytes"), std::string::npos) << certified.out;
  const std::vector<kiv::KivReport> stored = kiv::KivModel::loadFromStore();
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_TRUE(stored[0].slug);
  EXPECT_EQ(stored[0].proofStatus(), kiv::KivReport::ProofStatus::confirmed);
  ASSERT_EQ(stored[0].files.size(), 2u);
  for (const kiv::KivFile& file : stored[0].files) EXPECT_TRUE(file.hasRemoteFile() && file.hasLocalFile());
  EXPECT_TRUE(fs::exists(photo) && fs::exists(video)) << "the media were copied";

  const ProgramRun again = run({"Water damage, kitchen", photo.string()});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("a report named \"Water damage, kitchen\" exists already"), std::string::npos);
  const ProgramRun missing = run({"Attic", (media.path() / "gone.jpg").string()});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("gone.jpg: No such file or directory"), std::string::npos) << missing.err;
  EXPECT_EQ(run({"Attic"}).status, 2);
  EXPECT_EQ(kiv::KivModel::loadFromStore().size(), 1u) << "nothing was stored for the runs that stopped";
}

TEST(QuickStartText, IsTheReadmes) {
  const std::string example = testing_support::readFile(KIV_SOURCE_DIR "/examples/quick_start.cpp");
  const std::string readme = testing_support::readFile(KIV_SOURCE_DIR "/README.md");
  EXPECT_NE(readme.find("```cpp\n" + example + "```\n"), std::string::npos)
      << "the README's quick start differs from examples/quick_start.cpp";
}

}  // namespace
