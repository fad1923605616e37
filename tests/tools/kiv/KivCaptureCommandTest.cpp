// The kiv-capture program end to end, on Qt's offscreen platform, with the store it shares with kiv.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using kivtest::ToolRun;
using nlohmann::json;
using testing_support::readFile;

class KivCapture : public kivtest::ToolCommand {
 protected:
  ToolRun capture(std::vector<std::string> arguments) {
    return finish(start(KIV_CAPTURE_PROGRAM, withLeakSuppressions(std::move(arguments)), data(), "capture"),
                  "capture");
  }
  /// The settings of the address sanitizer build's leak check for the program (no effect in other builds).
  static std::vector<std::string> withLeakSuppressions(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"env:ASAN_OPTIONS=fast_unwind_on_malloc=0",
                                       "env:LSAN_OPTIONS=suppressions=" KIV_CAPTURE_LEAK_SUPPRESSIONS});
    return arguments;
  }
  /// The files new captures wait in before they join a report.
  std::size_t waitingCaptures() const {
    std::error_code error;
    return fs::exists(data() / "Captures", error)
               ? static_cast<std::size_t>(std::distance(fs::directory_iterator(data() / "Captures"), {}))
               : 0;
  }
};

TEST_F(KivCapture, APhotoLandsInAReportMadeWithKiv) {
  const std::string id = reportWith("Kitchen", {mediaFileNamed("before.jpg", "taken earlier")});
  const ToolRun run = capture({"--synthetic", "--take", "--report", id.substr(0, 8)});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.err.find("Added to report \"Kitchen\""), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("with a signed statement"), std::string::npos) << run.err;

  const json shown = ok({"report", "show", id});
  ASSERT_EQ(shown["files"].size(), 2u);
  const json& photo = shown["files"][1];
  EXPECT_EQ(photo["type"], "image");
  const std::string path = photo["path"];
  EXPECT_EQ(run.out, path + "\n");
  EXPECT_EQ(readFile(path).substr(0, 3), "\xFF\xD8\xFF") << "a JPEG photo";
  EXPECT_EQ(waitingCaptures(), 0u) << "the capture was moved into the media folder";
  EXPECT_EQ(ok({"verify", id})["verified"], true);
  const json statements =
      json::parse(readFile(data() / "Provenance" / "statements" / (id + ".json")))["statements"];
  EXPECT_TRUE(statements.contains(photo["name"].get<std::string>())) << statements;
}

TEST_F(KivCapture, AnUnknownReportLeavesTheStoreAsItWas) {
  reportWith("Kitchen", {mediaFileNamed("before.jpg", "taken earlier")});
  const json before = storedList();
  const ToolRun run = capture({"--synthetic", "--take", "--report", "Attic"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.err, "kiv-capture: no report \"Attic\": kiv report list shows the reports\n");
  EXPECT_TRUE(run.out.empty());
  EXPECT_EQ(storedList(), before);
  EXPECT_EQ(waitingCaptures(), 0u);
}

TEST_F(KivCapture, WithoutACameraItSaysSoAndClosingSavesNothing) {
  for (const auto& entry : fs::directory_iterator("/dev")) {
    if (entry.path().filename().string().starts_with("video")) GTEST_SKIP() << "this machine has a camera";
  }
  constexpr const char* kNoCamera = "kiv-capture: No camera was found. Connect a camera, then try again.\n";
  const ToolRun unattended = capture({"--take"});
  EXPECT_EQ(unattended.exitCode, 1);
  EXPECT_NE(unattended.err.find(kNoCamera), std::string::npos) << unattended.err;

  // Attended, the window stays open with the message until closed; SIGTERM closes it as the close button
  // does.
  int error[2];
  ASSERT_EQ(::pipe2(error, O_CLOEXEC), 0);
  const pid_t pid = start(KIV_CAPTURE_PROGRAM, withLeakSuppressions({"--photo"}), data(), "attended",
                          {.input = -1, .error = error[1]});
  ::close(error[1]);
  std::string said;
  // Appends what the program writes next to `said`; false at its end, or after a minute of silence.
  const auto hear = [&] {
    pollfd readable{error[0], POLLIN, 0};
    char buffer[512];
    const ssize_t count = ::poll(&readable, 1, 60000) == 1 ? ::read(error[0], buffer, sizeof buffer) : 0;
    if (count > 0) said.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  };
  while (said.find(kNoCamera) == std::string::npos && hear()) {
  }
  EXPECT_NE(said.find(kNoCamera), std::string::npos) << said;
  ::kill(pid, SIGTERM);  // whatever it said: the program must not outlive the test
  while (hear()) {
  }
  ::close(error[0]);
  EXPECT_EQ(finish(pid, "attended").exitCode, 0);
  EXPECT_NE(said.find("kiv-capture: closed; nothing was saved\n"), std::string::npos) << said;
}

}  // namespace
