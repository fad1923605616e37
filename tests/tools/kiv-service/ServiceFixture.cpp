#include "tools/kiv-service/ServiceFixture.hpp"

#include <openssl/evp.h>

namespace kiv::service::test {
namespace {

ServiceEnvironment* environment =
    static_cast<ServiceEnvironment*>(::testing::AddGlobalTestEnvironment(new ServiceEnvironment));

std::string jsonHeader() { return "Content-Type: application/json"; }

}  // namespace

void ServiceEnvironment::SetUp() {
  dir_ = std::make_unique<TempDir>();
  service_ = std::make_unique<ServiceProcess>(
      dir_->path() / "data", std::vector<std::string>{"--token", "another-token", "--token", kToken});
  service_->start();
}

void ServiceEnvironment::TearDown() {
  service_.reset();
  dir_.reset();
}

ServiceProcess& ServiceEnvironment::service() { return *environment->service_; }

std::string sha256Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += digits[digest[i] >> 4];
    text += digits[digest[i] & 0x0f];
  }
  return text;
}

nlohmann::json reportBody(const std::string& name, const std::vector<FileSpec>& files) {
  nlohmann::json list = nlohmann::json::array();
  for (const FileSpec& file : files) {
    list.push_back({{"file_name", file.name},
                    {"original_created_at", "2024-05-01T12:00:00Z"},
                    {"hash", file.declaredHash.empty() ? sha256Hex(file.content) : file.declaredHash},
                    {"meta_data", {{"camera", "back"}}}});
  }
  return {{"name", name},
          {"original_created_at", "2024-05-01T11:59:00Z"},
          {"provable_files", list},
          {"note", "seen at the site"}};
}

Reply ServiceTest::call(ServiceProcess& target, const std::string& method, const std::string& path,
                        const std::string& body, std::vector<std::string> headers) {
  headers.push_back(std::string("Authorization: app-token ") + kToken);
  headers.push_back(jsonHeader());
  return perform({method, target.baseUrl() + path, body, !body.empty(), headers}, target.caFile());
}

Reply ServiceTest::fetch(const std::string& method, const std::string& url, const std::string& body,
                         std::vector<std::string> headers) {
  return perform({method, url, body, !body.empty(), std::move(headers)}, service().caFile());
}

nlohmann::json ServiceTest::createReport(const std::vector<FileSpec>& files, const std::string& name) {
  const Reply reply = call("POST", "/v1/reports/", reportBody(name, files).dump());
  EXPECT_EQ(reply.status, 201) << reply.body;
  return reply.json();
}

nlohmann::json ServiceTest::uploadTarget(const nlohmann::json& report, std::size_t fileIndex,
                                         const std::string& type) {
  const std::string path = "/v1/reports/" + report["slug"].get<std::string>() + "/file-upload/?type=" + type +
                           "&file_slug=" + report["provable_files"][fileIndex]["slug"].get<std::string>();
  const Reply reply = call("GET", path);
  EXPECT_EQ(reply.status, 200) << reply.body;
  return reply.json();
}

nlohmann::json ServiceTest::upload(const nlohmann::json& report, std::size_t fileIndex,
                                   const std::string& content) {
  const Reply put = fetch("PUT", uploadTarget(report, fileIndex)["upload_uri"], content);
  EXPECT_EQ(put.status, uploadedStatus()) << put.body;
  return call("GET", "/v1/reports/" + report["slug"].get<std::string>() + "/").json();
}

}  // namespace kiv::service::test
