#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.hpp"

namespace kivtest {

/// How one run of a tool ended.
struct ToolRun {
  int exitCode = -1;
  std::string out;
  std::string err;
  nlohmann::json document() const { return nlohmann::json::parse(out); }
};

/// Where a child's standard input and error go instead of /dev/null and a file: a terminal, a pipe.
struct Attached {
  int input = -1;
  int error = -1;
};

/**
 * The tools (kiv, kiv-capture) run as child processes with a data folder of their own, against the reference
 * service (the CTest fixture's), given its address, CA and token the way a user gives them: in the
 * environment. The capture screen runs on Qt's offscreen platform.
 */
class ToolCommand : public ::testing::Test {
 protected:
  void SetUp() override;

  std::filesystem::path data() const { return folder.path() / "data"; }
  std::filesystem::path media() const { return folder.path() / "media"; }
  static std::filesystem::path mediaFolder(const std::filesystem::path& dataFolder) {
    return dataFolder / "Documents" / "Kiv";
  }

  /**
   * Starts `program` with `arguments` and the service settings in its environment; answers its process id.
   * An argument "env:NAME=VALUE" replaces a variable of the environment instead. Standard output goes to the
   * file `tag`.out, standard error to `tag`.err unless `attached` says otherwise.
   */
  pid_t start(const std::string& program, const std::vector<std::string>& arguments,
              const std::filesystem::path& dataFolder, const std::string& tag, Attached attached = {});
  /// Waits for the child `pid` started with `tag` and collects what it wrote.
  ToolRun finish(pid_t pid, const std::string& tag);

  ToolRun kiv(const std::vector<std::string>& arguments) { return kivIn(data(), arguments); }
  ToolRun kivIn(const std::filesystem::path& dataFolder, const std::vector<std::string>& arguments);
  /// Runs kiv and expects success; answers its JSON document.
  nlohmann::json ok(const std::vector<std::string>& arguments);

  std::filesystem::path mediaFileNamed(const std::string& name, const std::string& content);
  /// A new report with `files` added; answers its id.
  std::string reportWith(const std::string& name, const std::vector<std::filesystem::path>& files);
  /// The stored list as `kiv report list --json` prints it.
  nlohmann::json storedList() { return ok({"report", "list"}); }

  testing_support::TemporaryDirectory folder;
};

}  // namespace kivtest
