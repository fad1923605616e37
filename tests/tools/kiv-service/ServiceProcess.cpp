#include "tools/kiv-service/ServiceProcess.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern char** environ;

namespace kiv::service::test {
namespace {

constexpr auto kStartBound = std::chrono::seconds(30);
constexpr auto kStopBound = std::chrono::seconds(15);

// Reads the program's stdout until the line that names its port; bounded by kStartBound.
int readPort(int descriptor) {
  static constexpr std::string_view marker = "listening on https://127.0.0.1:";
  std::string output;
  const auto deadline = std::chrono::steady_clock::now() + kStartBound;
  while (std::chrono::steady_clock::now() < deadline) {
    const std::size_t found = output.find(marker);
    if (found != std::string::npos && output.find('\n', found) != std::string::npos) {
      return std::atoi(output.c_str() + found + marker.size());
    }
    pollfd readable{descriptor, POLLIN, 0};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (::poll(&readable, 1, static_cast<int>(std::max<long>(left.count(), 0))) <= 0) break;
    char block[256];
    const ssize_t got = ::read(descriptor, block, sizeof block);
    if (got <= 0) break;
    output.append(block, static_cast<std::size_t>(got));
  }
  throw std::runtime_error("kiv-service did not report its port; it printed: " + output);
}

// KEY=VALUE lines of the engines' folder (scripts/engines.sh writes engines.env there).
std::map<std::string, std::string> engineSettings() {
  std::map<std::string, std::string> settings;
  const char* folder = std::getenv("KIV_ENGINES");  // NOLINT(concurrency-mt-unsafe): no thread writes it
  if (!folder) return settings;
  std::ifstream in(std::filesystem::path(folder) / "engines.env");
  for (std::string line; std::getline(in, line);) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) settings[line.substr(0, equals)] = line.substr(equals + 1);
  }
  if (settings.count("KIV_POSTGRES") == 0 || settings.count("KIV_S3_ENDPOINT") == 0) {
    throw std::runtime_error(std::string("the engines in ") + folder + " did not start");
  }
  return settings;
}

// The service's arguments for the shared engines; every service of a run shares one bucket.
std::vector<std::string> engineArguments(const std::map<std::string, std::string>& settings) {
  if (settings.empty()) return {};
  return {"--database",  settings.at("KIV_POSTGRES"),  "--s3-endpoint", settings.at("KIV_S3_ENDPOINT"),
          "--s3-region", settings.at("KIV_S3_REGION"), "--s3-bucket",   "kiv-tests"};
}

// The test's environment, plus the object store's keys, which kiv-service takes from its environment only.
std::vector<std::string> serviceEnvironment(const std::map<std::string, std::string>& settings) {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable; ++variable) variables.emplace_back(*variable);
  for (const char* key : {"KIV_S3_ACCESS_KEY", "KIV_S3_SECRET_KEY"}) {
    if (settings.count(key)) variables.push_back(std::string(key) + "=" + settings.at(key));
  }
  return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// The exit status as a shell shows it: the code, or 128 + the signal that ended the process.
int exitStatus(int waitStatus) {
  return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

}  // namespace

bool onSharedEngines() { return std::getenv("KIV_ENGINES") != nullptr; }  // NOLINT(concurrency-mt-unsafe)

int uploadedStatus() { return onSharedEngines() ? 200 : 201; }

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kiv-service-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ServiceProcess::ServiceProcess(std::filesystem::path dataDir, std::vector<std::string> extraArguments)
    : dataDir_(std::move(dataDir)), arguments_(std::move(extraArguments)) {}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) stop();
}

void ServiceProcess::start() {
  const std::map<std::string, std::string> engines = engineSettings();
  std::vector<std::string> arguments{KIV_SERVICE_PROGRAM, "--data", dataDir_.string(), "--port",
                                     std::to_string(port_)};
  arguments.insert(arguments.end(), arguments_.begin(), arguments_.end());
  const std::vector<std::string> onEngines = engineArguments(engines);
  arguments.insert(arguments.end(), onEngines.begin(), onEngines.end());
  std::vector<char*> argv = pointers(arguments);
  std::vector<std::string> variables = serviceEnvironment(engines);
  std::vector<char*> envp = pointers(variables);

  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::filesystem::create_directories(dataDir_);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logFile().c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  const int status = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  if (status != 0) {
    ::close(pipe[0]);
    pid_ = -1;
    throw std::runtime_error("cannot start " + arguments[0]);
  }
  try {
    port_ = readPort(pipe[0]);
  } catch (const std::runtime_error& error) {
    ::close(pipe[0]);
    stop();
    throw std::runtime_error(std::string(error.what()) + "\nIts log:\n" + log());
  }
  ::close(pipe[0]);
}

bool ServiceProcess::terminate(pid_t pid) {
  // A pidfd turns "wait for the exit, at most this long" into one poll, for children and others alike.
  const int process = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  ::kill(pid, SIGTERM);
  pollfd exited{process, POLLIN, 0};
  const bool stopped =
      process >= 0 && ::poll(&exited, 1, static_cast<int>(std::chrono::milliseconds(kStopBound).count())) > 0;
  if (!stopped) ::kill(pid, SIGKILL);
  if (process >= 0) ::close(process);
  return stopped;
}

bool ServiceProcess::holdsFaultReport(const std::string& log) {
  return log.find("Sanitizer") != std::string::npos || log.find("runtime error:") != std::string::npos;
}

pid_t ServiceProcess::release() { return std::exchange(pid_, -1); }

int ServiceProcess::stop() {
  if (pid_ <= 0) return -1;
  terminate(pid_);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  expectCleanEnd(exitStatus(status));
  return exitStatus(status);
}

void ServiceProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void ServiceProcess::expectHealthy() {
  int status = 0;
  if (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    ADD_FAILURE() << "kiv-service stopped by itself with status " << exitStatus(status) << "; its log:\n"
                  << log();
  } else if (holdsFaultReport(log())) {
    ADD_FAILURE() << "kiv-service reported a fault; its log:\n" << log();
  }
}

std::string ServiceProcess::log() const {
  std::ifstream in(logFile());
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void ServiceProcess::expectCleanEnd(int status) {
  const std::string text = log();
  if (status != 0 || holdsFaultReport(text)) {
    ADD_FAILURE() << "kiv-service ended with status " << status << "; its log:\n" << text;
  }
}

}  // namespace kiv::service::test
