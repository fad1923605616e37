#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Faults.hpp"

namespace kiv::service {

/// The user's own service folder, where the SDK's default build looks for the CA:
/// $XDG_DATA_HOME/kiv-service, or ~/.local/share/kiv-service.
std::filesystem::path defaultDataDir();

/// How the service was started; see `kiv-service --help`. Without options it serves the user's own folder on
/// the fixed loopback port that the SDK's default build talks to.
struct Options {
  std::filesystem::path dataDir = defaultDataDir();
  std::optional<std::filesystem::path> tlsDir;  ///< the CA and certificate; nodes of one service share it
  std::string database;                         ///< PostgreSQL connection string; empty: SQLite in dataDir
  std::string s3Endpoint;                       ///< with s3Bucket: content in that object store
  std::string s3Bucket;
  std::string s3Region = "us-east-1";
  std::string s3AccessKey;  ///< from KIV_S3_ACCESS_KEY, never the command line (other users see it)
  std::string s3SecretKey;  ///< from KIV_S3_SECRET_KEY
  int port = KIV_SERVICE_DEFAULT_PORT;  ///< 0 picks a free port
  std::vector<std::string> tokens;
  bool openAccess = false;  ///< any token is accepted
  std::chrono::seconds uploadUrlTtl{3600};
  std::chrono::seconds downloadUrlTtl{24 * 3600};
  int threads = 64;  ///< each request being served holds one; a fault's stall keeps it
  std::vector<std::pair<std::string, Fault>> faults;
};

/// Reads the command line; on --help or an error prints to the console and answers the exit code instead.
std::variant<Options, int> parseOptions(int argc, char** argv);

}  // namespace kiv::service
