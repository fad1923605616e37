#pragma once

#include <stdexcept>
#include <string>

#include "AnyCodable/AnyCodable.hpp"

namespace kivcli {

/// How a command ends: 0 success, 1 the operation failed (service, network, files, verification), 2 the
/// command line cannot be carried out as typed.
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
[[noreturn]] void fail(const std::string& message);
/// The command line names something that does not exist or cannot be used (exit code 2).
[[noreturn]] void reject(const std::string& message);

/// The options every command takes, and the SDK set up from them.
struct Context {
  bool json = false;
  int verbose = 0;
  /// The application token; never printed or logged.
  std::string token;
  /// The service's address and the CA file that vouches for it, when not the built-in service.
  std::string service;
  std::string ca;
  /// The application data folder, when not the user's default one.
  std::string data;
  /// Seconds an operation may go without any sign of progress before the command gives up.
  double timeout = 120;

  /// Sets the data folder and the log level; runs before every command.
  void apply() const;
  /// Sets KivAPI up with the token and, when given, the service address; a usage error without a token
  /// unless the operations need none (content downloads).
  void connect(bool needsToken = true) const;
  /// Prints `document` as one JSON document (--json) or `human` as it is, on standard output.
  void print(const zu::AnyCodable::Dictionary& document, const std::string& human) const;
  /// Whether progress bars are drawn: standard error is a terminal and the output is not JSON.
  bool showsProgress() const;
};

}  // namespace kivcli
