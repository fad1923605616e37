#include "support/ServiceProcess.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
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

constexpr auto kStartBound = std::chrono::seconds(15);
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

// The exit status as a shell shows it: the code, or 128 + the signal that ended the process.
int exitStatus(int waitStatus) {
  return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

}  // namespace

ServiceProcess::ServiceProcess(std::filesystem::path dataDir, std::vector<std::string> extraArguments)
    : dataDir_(std::move(dataDir)), arguments_(std::move(extraArguments)) {}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) stop();
}

void ServiceProcess::start() {
  std::vector<std::string> arguments{KIV_SERVICE_PROGRAM, "--data", dataDir_.string(), "--port", "0"};
  arguments.insert(arguments.end(), arguments_.begin(), arguments_.end());
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::filesystem::create_directories(dataDir_);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logFile().c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  const int status = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
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
