// The kiv program end to end: run as a child process, with a data folder of its own, against the reference
// service (the CTest fixture's), given its address, CA and token the way a user gives them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/ServiceUnderTest.hpp"
#include "support/TemporaryDirectory.hpp"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX names it nowhere else

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing_support::readFile;
using testing_support::writeFile;

struct KivRun {
  int exitCode = -1;
  std::string out;
  std::string err;
  json document() const { return json::parse(out); }
};

class KivCommand : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(media()); }

  fs::path data() const { return folder.path() / "data"; }
  fs::path media() const { return folder.path() / "media"; }
  fs::path mediaFolder(const fs::path& dataFolder) const { return dataFolder / "Documents" / "Kiv"; }

  /// Starts kiv with `arguments` and the service settings in its environment; answers its process id.
  pid_t start(const std::vector<std::string>& arguments, const fs::path& dataFolder, const std::string& tag) {
    const auto& service = kivtest::ServiceEnvironment::address();
    std::vector<std::string> environment = {"KIV_DATA_DIR=" + dataFolder.string(),
                                            "KIV_SERVICE_URL=" + service.baseURL,
                                            "KIV_SERVICE_CA=" + service.caFile,
                                            "KIV_APP_TOKEN=" + service.token,
                                            "TZ=Europe/Kyiv",
                                            "PATH=/usr/bin:/bin"};
    std::vector<std::string> argv = {KIV_PROGRAM};
    for (const std::string& argument : arguments) {
      // "env:NAME=VALUE" replaces a variable of the environment instead of being an argument.
      if (!argument.starts_with("env:")) {
        argv.push_back(argument);
        continue;
      }
      const std::string setting = argument.substr(4);
      const std::string name = setting.substr(0, setting.find('=') + 1);
      std::erase_if(environment, [&](const std::string& each) { return each.starts_with(name); });
      environment.push_back(setting);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string out = (folder.path() / (tag + ".out")).string();
    const std::string err = (folder.path() / (tag + ".err")).string();
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    pid_t pid = -1;
    const auto pointers = [](std::vector<std::string>& texts) {
      std::vector<char*> result;
      result.reserve(texts.size() + 1);
      for (std::string& text : texts) result.push_back(text.data());
      result.push_back(nullptr);
      return result;
    };
    auto args = pointers(argv);
    auto env = pointers(environment);
    EXPECT_EQ(posix_spawn(&pid, KIV_PROGRAM, &actions, nullptr, args.data(), env.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  KivRun finish(pid_t pid, const std::string& tag) {
    int status = 0;
    KivRun run;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
    run.out = readFile(folder.path() / (tag + ".out"));
    run.err = readFile(folder.path() / (tag + ".err"));
    EXPECT_EQ(run.out.find(kivtest::kServiceToken), std::string::npos) << "the token was printed";
    EXPECT_EQ(run.err.find(kivtest::kServiceToken), std::string::npos) << "the token was printed";
    return run;
  }
  KivRun kiv(const std::vector<std::string>& arguments) { return kivIn(data(), arguments); }
  KivRun kivIn(const fs::path& dataFolder, const std::vector<std::string>& arguments) {
    return finish(start(arguments, dataFolder, "run"), "run");
  }
  /// Runs kiv and expects success; answers its JSON document.
  json ok(const std::vector<std::string>& arguments) {
    std::vector<std::string> withJson = arguments;
    withJson.insert(withJson.begin(), "--json");
    const KivRun run = kiv(withJson);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return run.exitCode == 0 ? run.document() : json();
  }

  fs::path mediaFileNamed(const std::string& name, const std::string& content) {
    fs::path path = media() / name;
    writeFile(path, content);
    return path;
  }
  /// A new report with `files` added; answers its id.
  std::string reportWith(const std::string& name, const std::vector<fs::path>& files) {
    std::string id = ok({"report", "new", name})["id"];
    std::vector<std::string> arguments = {"add", id};
    for (const fs::path& file : files) arguments.push_back(file.string());
    ok(arguments);
    return id;
  }
  /// The stored list as `kiv report list --json` prints it.
  json storedList() { return ok({"report", "list"}); }

  testing_support::TemporaryDirectory folder;
};

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

  const KivRun pdf = kiv({"pdf", id});
  ASSERT_EQ(pdf.exitCode, 0) << pdf.err;
  EXPECT_EQ(readFile(pdf.out.substr(0, pdf.out.size() - 1)).substr(0, 5), "%PDF-");
  EXPECT_EQ(ok({"verify", id})["verified"], true);
  EXPECT_NE(kiv({"-vv", "verify", id}).out.find("Kitchen: verified"), std::string::npos);

  // The same list on a device without the media: download brings the content back.
  const fs::path other = folder.path() / "other";
  fs::create_directories(other);
  fs::copy_file(data() / "UserDefaults.plist", other / "UserDefaults.plist");
  const KivRun download = kivIn(other, {"download", id});
  ASSERT_EQ(download.exitCode, 0) << download.err;
  EXPECT_EQ(readFile(mediaFolder(other) / stored), readFile(photo));
  EXPECT_EQ(kivIn(other, {"verify", id}).exitCode, 0);

  EXPECT_EQ(ok({"newsletter", "--email", "a@example.com", "--phone", "+1 555", "--list", "news=on", "--list",
                "offers=off"})["subscriptions"],
            json({{"news", true}, {"offers", false}}));

  const json removed = ok({"report", "rm", id});
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

  const KivRun run = kiv({"--json", "verify", id});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find(changed + " changed"), std::string::npos) << run.err;
  EXPECT_EQ(run.document()["verified"], false);
  EXPECT_EQ(run.document()["files"][0]["result"], "ok");
  EXPECT_EQ(run.document()["files"][1]["result"], "changed");
}

TEST_F(KivCommand, AStalledServiceFailsWithinTheTimeOutAndLeavesTheStore) {
  const std::string id = reportWith("Attic", {mediaFileNamed("a.jpg", "attic")});
  const json before = storedList();
  kivtest::setFault("create", R"({"kind": "stall", "ms": 20000, "times": 1})");
  const KivRun run = kiv({"--timeout", "2", "send", id});
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
  const KivRun failed = kiv({"upload", id});
  kivtest::clearFault("put");
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_NE(failed.err.find("failed"), std::string::npos) << failed.err;
  EXPECT_FALSE(ok({"report", "show", id})["files"][0]["lastUploadAttempt"].is_null());

  const KivRun throttled = kiv({"upload", id});
  EXPECT_EQ(throttled.exitCode, 1);
  EXPECT_NE(throttled.err.find("throttled"), std::string::npos) << throttled.err;
  EXPECT_NE(throttled.err.find("--force"), std::string::npos) << throttled.err;

  EXPECT_EQ(ok({"upload", id, "--force"})["files"][0]["result"], "uploaded");
  EXPECT_EQ(ok({"upload", id})["files"][0]["result"], "done before");
}

TEST_F(KivCommand, ConcurrentCommandsKeepEveryReport) {
  ok({"report", "list"});  // the store set up once
  std::vector<pid_t> running(4);
  for (int i = 0; i < 4; ++i)
    running[i] = start({"report", "new", "R" + std::to_string(i)}, data(), "p" + std::to_string(i));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(finish(running[i], "p" + std::to_string(i)).exitCode, 0);
  EXPECT_EQ(storedList()["reports"].size(), 4u);
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
  ::chmod(mediaFileNamed("locked.jpg", "locked").c_str(), 0);
  fs::create_directories(media() / "folder.jpg");
  const json before = storedList();

  std::vector<std::string> arguments;
  for (std::string argument : input.arguments) {
    if (argument == "{report}") argument = id;
    if (argument.starts_with("{media}")) argument = (media() / argument.substr(8)).string();
    arguments.push_back(argument);
  }
  const KivRun run = kiv(arguments);
  EXPECT_EQ(run.exitCode, input.exitCode) << run.err;
  EXPECT_TRUE(run.err.starts_with("kiv: ")) << run.err;
  EXPECT_NE(run.err.find(input.message), std::string::npos) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << "one line: " << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
  EXPECT_EQ(storedList(), before);
  const auto mediaFiles =
      std::distance(fs::directory_iterator(mediaFolder(data())), fs::directory_iterator());
  EXPECT_EQ(mediaFiles, 1) << "the media folder holds the one file added before";
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, KivBadInput,
    ::testing::Values(
        BadInput{"unknown_report", {"report", "show", "nothing"}, 2, "no report \"nothing\""},
        BadInput{"missing_file", {"add", "{report}", "{media}/gone.jpg"}, 2, "No such file or directory"},
        BadInput{"folder", {"add", "{report}", "{media}/folder.jpg"}, 2, "it is a folder"},
        BadInput{"empty_file",
                 {"add", "{report}", "{media}/kept.jpg", "{media}/empty.jpg"},
                 2,
                 "the file is empty"},
        BadInput{"unreadable", {"add", "{report}", "{media}/locked.jpg"}, 1, "Permission denied"},
        BadInput{"no_files", {"send", "Empty"}, 1, "has no files"},
        BadInput{"not_sent", {"upload", "{report}"}, 1, "has not been sent yet"},
        BadInput{"bad_name", {"report", "new", "a/b"}, 2, "cannot be empty"},
        BadInput{"bad_meta", {"report", "new", "X", "--meta", "novalue"}, 2, "--meta takes key=value"},
        BadInput{
            "bad_list", {"newsletter", "--email", "e@x", "--list", "news=maybe"}, 2, "--list takes NAME=on"},
        BadInput{"unknown_option", {"send", "{report}", "--bogus"}, 2, "--bogus"},
        BadInput{"no_token", {"env:KIV_APP_TOKEN=", "send", "{report}"}, 2, "no application token"},
        BadInput{"no_command", {}, 2, "subcommand"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace
