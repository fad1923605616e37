#include "ToolCommand.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "integration/ServiceUnderTest.hpp"

namespace kivtest {

namespace fs = std::filesystem;
using nlohmann::json;
using testing_support::readFile;

void ToolCommand::SetUp() {
  fs::create_directories(media());
  // Qt wants a folder of the user's own for its run-time files.
  fs::create_directories(folder.path() / "runtime");
  fs::permissions(folder.path() / "runtime", fs::perms::owner_all);
}

pid_t ToolCommand::start(const std::string& program, const std::vector<std::string>& arguments,
                         const fs::path& dataFolder, const std::string& tag, Attached attached) {
  const auto& service = ServiceEnvironment::address();
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the tests change no environment variables
  const char* home = std::getenv("HOME");
  std::vector<std::string> environment = {"KIV_DATA_DIR=" + dataFolder.string(),
                                          "KIV_SERVICE_URL=" + service.baseURL,
                                          "KIV_SERVICE_CA=" + service.caFile,
                                          "KIV_APP_TOKEN=" + service.token,
                                          "TZ=Europe/Kyiv",
                                          "PATH=/usr/bin:/bin",
                                          std::string("HOME=") + (home ? home : ""),
                                          "QT_QPA_PLATFORM=offscreen",
                                          "XDG_RUNTIME_DIR=" + (folder.path() / "runtime").string()};
  std::vector<std::string> argv = {program};
  for (const std::string& argument : arguments) {
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
  if (attached.input >= 0) {
    posix_spawn_file_actions_adddup2(&actions, attached.input, STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (attached.error >= 0) {
    posix_spawn_file_actions_adddup2(&actions, attached.error, STDERR_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
  }
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
  EXPECT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, args.data(), env.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

ToolRun ToolCommand::finish(pid_t pid, const std::string& tag) {
  int status = 0;
  ToolRun run;
  if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  run.out = readFile(folder.path() / (tag + ".out"));
  run.err = readFile(folder.path() / (tag + ".err"));
  EXPECT_EQ(run.out.find(kServiceToken), std::string::npos) << "the token was printed";
  EXPECT_EQ(run.err.find(kServiceToken), std::string::npos) << "the token was printed";
  return run;
}

ToolRun ToolCommand::kivIn(const fs::path& dataFolder, const std::vector<std::string>& arguments) {
  return finish(start(KIV_PROGRAM, arguments, dataFolder, "run"), "run");
}

json ToolCommand::ok(const std::vector<std::string>& arguments) {
  std::vector<std::string> withJson = arguments;
  withJson.insert(withJson.begin(), "--json");
  const ToolRun run = kiv(withJson);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  return run.exitCode == 0 ? run.document() : json();
}

fs::path ToolCommand::mediaFileNamed(const std::string& name, const std::string& content) {
  fs::path path = media() / name;
  testing_support::writeFile(path, content);
  return path;
}

std::string ToolCommand::reportWith(const std::string& name, const std::vector<fs::path>& files) {
  std::string id = ok({"report", "new", name})["id"];
  std::vector<std::string> arguments = {"add", id};
  for (const fs::path& file : files) arguments.push_back(file.string());
  ok(arguments);
  return id;
}

}  // namespace kivtest
