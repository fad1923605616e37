#pragma once

#include <stdexcept>
#include <string>

namespace kivcli {

/// How a tool ends: 0 success, 1 the operation failed (service, network, files, an unknown report,
/// verification), 2 the command line cannot be carried out as typed.
enum ExitCode : int { success = 0, failed = 1, usage = 2 };

/// A command that cannot go on. The message is the one line for standard error: what failed and what to do.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode exitCode, const std::string& message)
      : std::runtime_error(message), code_(exitCode) {}
  ExitCode exitCode() const { return code_; }

 private:
  ExitCode code_;
};

/// The operation failed (exit code 1).
[[noreturn]] inline void fail(const std::string& message) { throw CommandError(ExitCode::failed, message); }
/// The command line cannot be carried out as typed (exit code 2).
[[noreturn]] inline void reject(const std::string& message) { throw CommandError(ExitCode::usage, message); }

}  // namespace kivcli
