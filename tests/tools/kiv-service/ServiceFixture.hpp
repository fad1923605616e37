#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/Http.hpp"
#include "support/ServiceProcess.hpp"
#include "support/TemporaryDirectory.hpp"

namespace kiv::service::test {

using testing_support::TemporaryDirectory;

inline constexpr const char* kToken = "test-token-7f3a";

/// The service shared by every test of the program, started once with two accepted tokens.
class ServiceEnvironment : public ::testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;
  static ServiceProcess& service();

 private:
  std::unique_ptr<TemporaryDirectory> dir_;
  std::unique_ptr<ServiceProcess> service_;
};

/// A file for `createReport`: its name and content (the declared digest is the content's unless given).
struct FileSpec {
  std::string name;
  std::string content;
  std::string declaredHash = {};
};

std::string sha256Hex(const std::string& bytes);
nlohmann::json reportBody(const std::string& name, const std::vector<FileSpec>& files);

/// Helpers that speak the protocol to the shared service (or to `service` when given). A test after which
/// the shared service is down or has reported a fault fails.
class ServiceTest : public ::testing::Test {
 protected:
  void TearDown() override { service().expectHealthy(); }
  ServiceProcess& service() { return ServiceEnvironment::service(); }

  Reply call(ServiceProcess& target, const std::string& method, const std::string& path,
             const std::string& body = {}, std::vector<std::string> headers = {});
  Reply call(const std::string& method, const std::string& path, const std::string& body = {},
             std::vector<std::string> headers = {}) {
    return call(service(), method, path, body, std::move(headers));
  }
  Reply fetch(const std::string& method, const std::string& url, const std::string& body = {},
              std::vector<std::string> headers = {});

  /// POSTs a report and answers the service's JSON (expects 201).
  nlohmann::json createReport(const std::vector<FileSpec>& files, const std::string& name = "Evidence");
  /// Asks for the file's upload address and answers {"upload_uri", "file"}.
  nlohmann::json uploadTarget(const nlohmann::json& report, std::size_t fileIndex,
                              const std::string& type = "jpg");
  /// Uploads content for a file and answers the report as the service then sees it.
  nlohmann::json upload(const nlohmann::json& report, std::size_t fileIndex, const std::string& content);
};

}  // namespace kiv::service::test
