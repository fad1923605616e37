#pragma once

#include <sys/types.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace kivtest {

/// The application token the test service accepts.
inline constexpr const char* kServiceToken = "kivapi-test-token";
/// The token of the README's quick start, which the test service accepts as well: it runs as written.
inline constexpr const char* kQuickStartToken = "my-app-token";

/// kiv-service's options for a test service: the tokens above.
inline std::vector<std::string> testServiceOptions() {
  return {"--token", kServiceToken, "--token", kQuickStartToken};
}

/**
 * Where a test service runs, as the CTest fixture hands it to the tests: the file DIR/fixture holds one
 * "key=value" line each for the base URL, the CA file, the token and the service's process id.
 */
struct ServiceAddress {
  std::string baseURL;
  std::string caFile;
  std::string token;
  pid_t pid = -1;

  static std::filesystem::path file(const std::filesystem::path& dir) { return dir / "fixture"; }

  void write(const std::filesystem::path& dir) const {
    std::ofstream(file(dir)) << "base=" << baseURL << "\nca=" << caFile << "\ntoken=" << token
                             << "\npid=" << pid << "\n";
  }

  /// The address in DIR/fixture; nothing when the file is missing or incomplete.
  static std::optional<ServiceAddress> read(const std::filesystem::path& dir) {
    std::ifstream in(file(dir));
    ServiceAddress address;
    for (std::string line; std::getline(in, line);) {
      const auto equals = line.find('=');
      const std::string key = line.substr(0, equals);
      const std::string value = equals == std::string::npos ? "" : line.substr(equals + 1);
      if (key == "base") address.baseURL = value;
      if (key == "ca") address.caFile = value;
      if (key == "token") address.token = value;
      if (key == "pid") address.pid = static_cast<pid_t>(std::atol(value.c_str()));
    }
    if (address.baseURL.empty() || address.caFile.empty() || address.pid <= 0) return std::nullopt;
    return address;
  }
};

}  // namespace kivtest
