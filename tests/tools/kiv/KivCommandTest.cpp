// The kiv program end to end: run as a child process, with a data folder of its own, against the reference
// service (the CTest fixture's), given its address, CA and token the way a user gives them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "support/ServiceUnderTest.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing_support::readFile;
using testing_support::writeFile;

using KivCommand = kivtest::ToolCommand;
using kivtest::ToolRun;

TEST_F(KivCommand, TheWholeFlowInHumanAndJsonForm) {
  const fs::path photo = mediaFileNamed("Küche \"1\" 'a'.JPG", std::string(300000, 'p'));
  const fs::path video = mediaFileNamed("clip.mp4", "video bytes");
  const json created =
      ok({"report", "new", "Kitchen", "--note", "tap", "--email", "a@example.com", "--meta", "room=kitchen"});
  const std::string id = created["id"];
  EXPECT_EQ(created["note"], "tap");
  EXPECT_EQ(created["metadata"]["room"], "kitchen");
  EXPECT_EQ(kiv({"report", "new", "Hall"}).out.size(), id.size() + 1) << "the human form is the id alone";

  const json added = ok({"add", id.substr(0, 8), photo.string(), video.string()});
  ASSERT_EQ(added["added"].size(), 2u);
  EXPECT_EQ(added["added"][0]["type"], "image");
  EXPECT_EQ(added["added"][0]["description"], photo.filename().string());
  EXPECT_EQ(added["added"][1]["type"], "video");
  EXPECT_TRUE(fs::exists(photo)) << "files are copied unless --move";
  const std::string stored = added["added"][0]["name"];
  EXPECT_EQ(readFile(mediaFolder(data()) / stored), readFile(photo));

  const json sent = ok({"send", "Kitchen"});
  const std::string slug = sent["slug"];
  EXPECT_EQ(sent["status"], "pending");
  EXPECT_NE(kiv({"report", "list"}).out.find(slug), std::string::npos);

  const json uploaded = ok({"upload", slug});
  for (const auto& file : uploaded["files"]) EXPECT_EQ(file["result"], "uploaded");
  EXPECT_EQ(ok({"status", id, "--force", "--wait", "60"})["status"], "confirmed");
  EXPECT_NE(kiv({"status", id}).out.find("Kitchen: confirmed"), std::string::npos);

  const ToolRun pdf = kiv({"pdf", id});
  ASSERT_EQ(pdf.exitCode, 0) << pdf.err;
  EXPECT_EQ(readFile(pdf.out.substr(0, pdf.out.size() - 1)).substr(0, 5), "%PDF-");
  EXPECT_EQ(ok({"verify", id})["verified"], true);
  EXPECT_NE(kiv({"-vv", "verify", id}).out.find("Kitchen: verified"), std::string::npos);

  // The same list on a device without the media: download brings the content back.
  const fs::path other = folder.path() / "other";
  fs::create_directories(other);
  fs::copy_file(data() / "UserDefaults.plist", other / "UserDefaults.plist");
  const ToolRun download = kivIn(other, {"download", id});
  ASSERT_EQ(download.exitCode, 0) << download.err;
  EXPECT_EQ(readFile(mediaFolder(other) / stored), readFile(photo));
  EXPECT_EQ(kivIn(other, {"verify", id}).exitCode, 0);

  EXPECT_EQ(ok({"newsletter", "--email", "a@example.com", "--phone", "+1 555", "--list", "news=on", "--list",
                "offers=off"})["subscriptions"],
            json({{"news", true}, {"offers", false}}));

  const json removed = ok({"report", "rm", id, "--yes"});
  EXPECT_EQ(removed["deletedFiles"].size(), 3u) << "two media files and the certificate";
  EXPECT_FALSE(fs::exists(mediaFolder(data()) / stored));
  ASSERT_EQ(storedList()["reports"].size(), 1u);
  EXPECT_EQ(storedList()["reports"][0]["name"], "Hall");
}

TEST_F(KivCommand, VerificationNamesAFileChangedAfterHashing) {
  const std::string id =
      reportWith("Garage", {mediaFileNamed("a.jpg", "one"), mediaFileNamed("b.jpg", "two")});
  const json shown = ok({"report", "show", id});
  const std::string changed = shown["files"][1]["name"];
  writeFile(mediaFolder(data()) / changed, "tampered");

  const ToolRun run = kiv({"--json", "verify", id});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find(changed + " changed"), std::string::npos) << run.err;
  EXPECT_EQ(run.document()["verified"], false);
  EXPECT_EQ(run.document()["files"][0]["result"], "ok");
  EXPECT_EQ(run.document()["files"][1]["result"], "changed");
}

TEST_F(KivCommand, TwoReportsWithLikeNamedMediaKeepBothFilesAndBothVerify) {
  // Both photos are called leak.jpg and were taken in the same second.
  const fs::path kitchenLeak = mediaFileNamed("leak.jpg", "the kitchen's leak");
  fs::create_directories(media() / "bathroom");
  const fs::path bathroomLeak = media() / "bathroom" / "leak.jpg";
  writeFile(bathroomLeak, "the bathroom's leak");
  fs::last_write_time(bathroomLeak, fs::last_write_time(kitchenLeak));

  std::vector<std::string> names;
  for (const auto& [name, photo] : {std::pair{"Kitchen", kitchenLeak}, std::pair{"Bathroom", bathroomLeak}}) {
    const std::string id = reportWith(name, {photo});
    ok({"send", id});
    ok({"upload", id});
    EXPECT_EQ(ok({"status", id, "--force", "--wait", "60"})["status"], "confirmed");
    names.push_back(ok({"report", "show", id})["files"][0]["name"]);
  }
  ASSERT_NE(names[0], names[1]);
  EXPECT_EQ(readFile(mediaFolder(data()) / names[0]), "the kitchen's leak");
  EXPECT_EQ(readFile(mediaFolder(data()) / names[1]), "the bathroom's leak");
  for (const char* report : {"Kitchen", "Bathroom"})
    EXPECT_EQ(ok({"verify", report})["verified"], true) << report;
}

TEST_F(KivCommand, AStalledServiceFailsWithinTheTimeOutAndLeavesTheStore) {
  const std::string id = reportWith("Attic", {mediaFileNamed("a.jpg", "attic")});
  const json before = storedList();
  kivtest::setFault("create", R"({"kind": "stall", "ms": 20000, "times": 1})");
  const ToolRun run = kiv({"--timeout", "2", "send", id});
  kivtest::clearFault("create");
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find("sending Attic: no answer from the service for 2 s"), std::string::npos) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << "one line: " << run.err;
  EXPECT_EQ(storedList(), before);
}

TEST_F(KivCommand, UploadsAreThrottledAfterAFailedAttemptUnlessForced) {
  const std::string id = reportWith("Cellar", {mediaFileNamed("a.jpg", "cellar")});
  ok({"send", id});
  kivtest::setFault("put", R"({"kind": "status", "status": 500, "times": 1})");
  const ToolRun failed = kiv({"upload", id});
  kivtest::clearFault("put");
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_NE(failed.err.find("failed"), std::string::npos) << failed.err;
  EXPECT_FALSE(ok({"report", "show", id})["files"][0]["lastUploadAttempt"].is_null());

  const ToolRun throttled = kiv({"upload", id});
  EXPECT_EQ(throttled.exitCode, 1);
  EXPECT_NE(throttled.err.find("throttled"), std::string::npos) << throttled.err;
  EXPECT_NE(throttled.err.find("--force"), std::string::npos) << throttled.err;

  EXPECT_EQ(ok({"upload", id, "--force"})["files"][0]["result"], "uploaded");
  EXPECT_EQ(ok({"upload", id})["files"][0]["result"], "done before");
}

TEST_F(KivCommand, ConcurrentCommandsKeepEveryReportAndOneOfEachName) {
  ok({"report", "list"});  // the store set up once
  // Four different names, then one name four times: every report stays, and the name goes to one of them.
  for (const bool sameName : {false, true}) {
    std::vector<pid_t> running(4);
    for (int i = 0; i < 4; ++i) {
      const std::string name = sameName ? "Same" : "R" + std::to_string(i);
      running[i] = start(KIV_PROGRAM, {"report", "new", name}, data(), "p" + std::to_string(i));
    }
    int created = 0;
    for (int i = 0; i < 4; ++i) created += finish(running[i], "p" + std::to_string(i)).exitCode == 0 ? 1 : 0;
    EXPECT_EQ(created, sameName ? 1 : 4);
  }
  EXPECT_EQ(storedList()["reports"].size(), 5u);
}

/// A pseudo-terminal: the child's side stands for the user's terminal, the test types and reads on its own.
class Terminal {
 public:
  Terminal() {
    controller_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(controller_, 0);
    EXPECT_EQ(::grantpt(controller_), 0);
    EXPECT_EQ(::unlockpt(controller_), 0);
    std::array<char, 64> name{};
    EXPECT_EQ(::ptsname_r(controller_, name.data(), name.size()), 0);
    child_ = ::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(child_, 0);
  }
  ~Terminal() {
    closeChildSide();
    ::close(controller_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  int childSide() const { return child_; }
  /// Leaves the child's side to the child alone, so that reading ends when the child does.
  void closeChildSide() {
    if (child_ >= 0) ::close(child_);
    child_ = -1;
  }
  void type(const std::string& text) {
    EXPECT_EQ(::write(controller_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  /// What the child wrote (and the terminal echoed), until its side closed.
  std::string readAll() {
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(controller_, buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
      if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  int controller_ = -1;
  int child_ = -1;
};

TEST_F(KivCommand, AtATerminalRemovalAsksFirstAndProgressShowsSmallFilesInKiB) {
  const std::string id =
      reportWith("Shed", {mediaFileNamed("small.jpg", std::string(std::size_t{20} * 1024, 's'))});
  for (const std::string answer : {"n", "y"}) {
    Terminal terminal;
    const pid_t pid = start(KIV_PROGRAM, {"report", "rm", id}, data(), "rm",
                            {.input = terminal.childSide(), .error = terminal.childSide()});
    terminal.closeChildSide();
    terminal.type(answer + "\n");
    const std::string said = terminal.readAll();
    const ToolRun run = finish(pid, "rm");
    EXPECT_NE(said.find("Remove report Shed and its 1 file(s) on this device? [y/N]"), std::string::npos)
        << said;
    if (answer == "n") {
      EXPECT_EQ(run.exitCode, 1);
      EXPECT_NE(said.find("kept Shed: nothing was removed"), std::string::npos) << said;
      ok({"send", id});
      Terminal uploads;
      const pid_t upload =
          start(KIV_PROGRAM, {"upload", id}, data(), "up", {.input = -1, .error = uploads.childSide()});
      uploads.closeChildSide();
      const std::string board = uploads.readAll();
      EXPECT_EQ(finish(upload, "up").exitCode, 0);
      EXPECT_NE(board.find("20.0/20.0 KiB"), std::string::npos) << board;
    } else {
      EXPECT_EQ(run.exitCode, 0) << said;
      EXPECT_TRUE(storedList()["reports"].empty());
    }
  }
}

struct BadInput {
  const char* label;
  std::vector<std::string> arguments;  // "{report}" is the report's id, "{media}" the media folder
  int exitCode;
  const char* message;
};

void PrintTo(const BadInput& input, std::ostream* out) { *out << input.label; }

class KivBadInput : public KivCommand, public ::testing::WithParamInterface<BadInput> {};

TEST_P(KivBadInput, SaysWhatIsWrongAndKeepsTheStore) {
  const BadInput& input = GetParam();
  if (std::string(input.label) == "unreadable" && ::geteuid() == 0) GTEST_SKIP() << "root reads every file";
  const std::string id = reportWith("Porch", {mediaFileNamed("kept.jpg", "kept")});
  ok({"report", "new", "Empty"});
  mediaFileNamed("empty.jpg", "");
  mediaFileNamed("fresh.jpg", "fresh");
  ::chmod(mediaFileNamed("locked.jpg", "locked").c_str(), 0);
  fs::create_directories(media() / "folder.jpg");
  const json before = storedList();

  std::vector<std::string> arguments;
  for (std::string argument : input.arguments) {
    if (argument == "{report}") argument = id;
    if (argument.starts_with("{media}")) argument = (media() / argument.substr(8)).string();
    arguments.push_back(argument);
  }
  const ToolRun run = kiv(arguments);
  EXPECT_EQ(run.exitCode, input.exitCode) << run.err;
  EXPECT_TRUE(run.err.starts_with("kiv: ")) << run.err;
  EXPECT_NE(run.err.find(input.message), std::string::npos) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << "one line: " << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
  // With --json the same line comes as a document on standard output too.
  arguments.insert(arguments.begin(), "--json");
  const ToolRun scripted = kiv(arguments);
  EXPECT_EQ(scripted.exitCode, input.exitCode);
  EXPECT_EQ(scripted.err, run.err);
  const json error = json::parse(scripted.out, nullptr, false);
  EXPECT_EQ(error, json({{"error", run.err.substr(5, run.err.size() - 6)}, {"exitCode", input.exitCode}}))
      << scripted.out;
  EXPECT_EQ(storedList(), before);
  const auto mediaFiles =
      std::distance(fs::directory_iterator(mediaFolder(data())), fs::directory_iterator());
  EXPECT_EQ(mediaFiles, 1) << "the media folder holds the one file added before";
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, KivBadInput,
    ::testing::Values(
        BadInput{"unknown_report", {"report", "show", "nothing"}, 1, "no report \"nothing\""},
        BadInput{"unnamed_report", {"report", "show", ""}, 2, "a report must be named"},
        BadInput{"missing_file", {"add", "{report}", "{media}/gone.jpg"}, 1, "No such file or directory"},
        BadInput{"folder", {"add", "{report}", "{media}/folder.jpg"}, 1, "is a folder"},
        BadInput{"empty_file", {"add", "{report}", "{media}/fresh.jpg", "{media}/empty.jpg"}, 1, "is empty"},
        BadInput{"same_file_twice",
                 {"add", "{report}", "{media}/fresh.jpg", "{media}/fresh.jpg"},
                 1,
                 "fresh.jpg is already in report \"Porch\""},
        BadInput{
            "file_added_before", {"add", "{report}", "{media}/kept.jpg"}, 1, "kept.jpg is already in report"},
        BadInput{"wrong_order",
                 {"add", "{media}/fresh.jpg", "{report}"},
                 2,
                 "is a file, not a report: the report comes first (kiv add REPORT FILE...)"},
        BadInput{"name_taken", {"report", "new", "Porch"}, 1, "a report named \"Porch\" exists already (id "},
        BadInput{"removal_unconfirmed",
                 {"report", "rm", "{report}"},
                 2,
                 "add --yes to confirm when not at a terminal"},
        BadInput{"misspelt_command",
                 {"stauts", "{report}"},
                 2,
                 "unknown command \"stauts\": did you mean status?"},
        BadInput{"misspelt_option",
                 {"status", "{report}", "--forse"},
                 2,
                 "unknown option --forse: did you mean --force?"},
        BadInput{"unreadable", {"add", "{report}", "{media}/locked.jpg"}, 1, "Permission denied"},
        BadInput{"no_files", {"send", "Empty"}, 1, "has no files"},
        BadInput{"not_sent", {"upload", "{report}"}, 1, "has not been sent yet"},
        BadInput{"bad_name", {"report", "new", "a/b"}, 2, "cannot be empty"},
        BadInput{"bad_meta", {"report", "new", "X", "--meta", "novalue"}, 2, "--meta takes key=value"},
        BadInput{
            "bad_list", {"newsletter", "--email", "e@x", "--list", "news=maybe"}, 2, "--list takes NAME=on"},
        BadInput{"unknown_option", {"send", "{report}", "--bogus"}, 2, "not expected: --bogus"},
        BadInput{"no_token", {"env:KIV_APP_TOKEN=", "send", "{report}"}, 2, "no application token"},
        BadInput{"no_command", {}, 2, "subcommand"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace
