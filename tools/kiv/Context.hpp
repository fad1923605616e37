#pragma once

#include <string>

#include "AnyCodable/AnyCodable.hpp"
#include "ToolError.hpp"

namespace kivcli {

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
  /// Whether the command's document is out: a failure after it says no more on standard output.
  mutable bool printed = false;

  /// Sets the data folder and the log level; runs before every command.
  void apply() const;
  /// Sets KivAPI up with the token and, when given, the service address; a usage error without a token
  /// unless the operations need none (content downloads).
  void connect(bool needsToken = true) const;
  /// Prints `document` as one JSON document (--json) or `human` as it is, on standard output.
  void print(const zu::AnyCodable::Dictionary& document, const std::string& human) const;
  /// With --json, prints {"error": message, "exitCode": code} unless the command printed its document.
  void printError(const std::string& message, ExitCode code) const;
  /// Whether progress bars are drawn: standard error is a terminal and the output is not JSON.
  bool showsProgress() const;
};

}  // namespace kivcli
