#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kiv::service::test {

/**
 * Whether the services of this run keep their records in PostgreSQL and their content in an object store:
 * the engines that scripts/engines.sh started for the CTest fixture whose folder KIV_ENGINES names. Without
 * it they use SQLite and their data folder.
 */
bool onSharedEngines();

/// The status of a successful upload: the service's own storage answers 201 Created, an object store 200.
int uploadedStatus();

/// A temporary folder, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/**
 * The built kiv-service running on 127.0.0.1 with a port of its own choosing, on the shared engines when
 * `onSharedEngines()`. Its stderr (the request log)
 * goes to `logFile()` in the data folder. Start and stop wait with time bounds and fail the test when
 * exceeded. A service that stops by itself, ends with another status than 0, or writes a sanitizer report
 * fails the current test, which then shows the log (it is deleted with the temporary folder).
 */
class ServiceProcess {
 public:
  ServiceProcess(std::filesystem::path dataDir, std::vector<std::string> extraArguments);
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  /// Starts the service; started again, it listens on the port it had.
  void start();
  /// SIGTERM, then waits for a clean exit; answers the exit status.
  int stop();
  /// SIGKILL, as a crash or a pulled plug would end it, and waits for it to be gone.
  void kill();
  /// Fails the current test when the service has stopped by itself or reported a fault in its log.
  void expectHealthy();
  /// Leaves the service running when this object goes, for a fixture that outlives the process that started
  /// it; answers the service's process id.
  pid_t release();
  /// Stops a service that another process started (see `release`): SIGTERM, SIGKILL when it has not exited
  /// within the stop bound. Answers whether it exited on SIGTERM.
  static bool terminate(pid_t pid);
  /// Whether a log holds a report from a sanitizer or the runtime; the service's own lines never do.
  static bool holdsFaultReport(const std::string& log);

  int port() const { return port_; }
  std::string baseUrl() const { return "https://127.0.0.1:" + std::to_string(port_); }
  std::filesystem::path caFile() const { return dataDir_ / "ca.pem"; }
  std::filesystem::path logFile() const { return dataDir_ / "service.log"; }
  const std::filesystem::path& dataDir() const { return dataDir_; }
  std::string log() const;
  pid_t pid() const { return pid_; }

 private:
  void expectCleanEnd(int status);

  std::filesystem::path dataDir_;
  std::vector<std::string> arguments_;
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace kiv::service::test
