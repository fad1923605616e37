#include <chrono>

#include "tools/kiv-service/ServiceFixture.hpp"

namespace kiv::service::test {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

class FaultTest : public ServiceTest {
 protected:
  void SetUp() override {
    report_ = createReport({{"IMG_1.jpg", "one"}, {"IMG_2.jpg", "two"}});
    path_ = "/v1/reports/" + report_["slug"].get<std::string>() + "/";
  }
  void TearDown() override {
    fetch("DELETE", service().baseUrl() + "/admin/faults/get");
    ServiceTest::TearDown();
  }

  /// Switches a fault on for one request of `route`.
  void once(const std::string& route, json fault) {
    fault["times"] = 1;
    const Reply reply = fetch("PUT", service().baseUrl() + "/admin/faults/" + route, fault.dump());
    ASSERT_EQ(reply.status, 200) << reply.body;
  }

  json report_;
  std::string path_;
};

TEST_F(FaultTest, BodyFaultsChangeOneAnswerThenClear) {
  const std::string normal = call("GET", path_).body;
  once("get", {{"kind", "status"}, {"status", 503}});
  Reply reply = call("GET", path_);
  EXPECT_EQ(reply.status, 503);
  EXPECT_EQ(reply.detail(), "Injected fault.");
  EXPECT_EQ(call("GET", path_).body, normal) << "a fault with times=1 clears itself";

  once("get", {{"kind", "non-json"}});
  reply = call("GET", path_);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.headers.at("content-type"), "text/html");
  EXPECT_TRUE(reply.json().is_discarded());

  once("get", {{"kind", "scalar"}});
  EXPECT_EQ(call("GET", path_).body, "true");

  once("get", {{"kind", "truncate"}});
  reply = call("GET", path_);
  EXPECT_EQ(reply.error, CURLE_OK) << "a complete answer whose body is cut";
  EXPECT_EQ(reply.body, normal.substr(0, normal.size() / 2));

  for (const std::string hostile : {"../../x", "a/b", ""}) {
    once("get", {{"kind", "file-name"}, {"text", hostile}});
    const json files = call("GET", path_).json()["provable_files"];
    ASSERT_EQ(files.size(), 2u);
    for (const json& file : files) EXPECT_EQ(file["file_name"], hostile);
  }
}

TEST_F(FaultTest, TransportFaultsDelayStallAndReset) {
  once("get", {{"kind", "delay"}, {"ms", 300}});
  auto start = Clock::now();
  EXPECT_EQ(call("GET", path_).status, 200);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));

  once("get", {{"kind", "stall"}, {"ms", 300}});
  start = Clock::now();
  Reply reply = call("GET", path_);
  EXPECT_NE(reply.error, CURLE_OK) << "a stall ends in a dropped connection, not an answer";
  EXPECT_EQ(reply.status, 0);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));

  once("get", {{"kind", "stall"}});
  Request bounded{
      "GET", service().baseUrl() + path_, {}, false, {std::string("Authorization: app-token ") + kToken}};
  bounded.timeout = std::chrono::milliseconds(400);
  EXPECT_EQ(perform(bounded, service().caFile()).error, CURLE_OPERATION_TIMEDOUT);
  fetch("DELETE", service().baseUrl() + "/admin/faults/get");  // releases the stalled worker

  once("get", {{"kind", "reset"}});
  reply = call("GET", path_);
  EXPECT_NE(reply.error, CURLE_OK);
  EXPECT_LT(reply.body.size(), call("GET", path_).body.size());
}

TEST_F(FaultTest, StorageRoutesAndTheWildcardMisbehaveToo) {
  if (onSharedEngines()) GTEST_SKIP() << "content goes to the object store, past the service's routes";
  const json target = uploadTarget(report_, 0);
  once("put", {{"kind", "status"}, {"status", 500}});
  EXPECT_EQ(fetch("PUT", target["upload_uri"], "one").status, 500);
  EXPECT_EQ(fetch("PUT", target["upload_uri"], "one").status, 201);

  std::string content(1 << 20, 'x');
  const json stored = upload(report_, 1, content);
  once("download", {{"kind", "reset"}});
  const Reply cut = fetch("GET", stored["provable_files"][1]["file"]);
  EXPECT_NE(cut.error, CURLE_OK);
  EXPECT_LT(cut.body.size(), content.size());

  once("*", {{"kind", "status"}, {"status", 502}});
  EXPECT_EQ(call("POST", "/v1/newsletter/", "{}").status, 502);
  EXPECT_EQ(call("POST", "/v1/newsletter/", "{}").status, 400);
}

TEST_F(FaultTest, SwitchesAreCheckedAndCanBeSetFromTheCommandLine) {
  const std::string admin = service().baseUrl() + "/admin/faults/";
  EXPECT_EQ(fetch("PUT", admin + "nosuchroute", R"({"kind": "delay"})").status, 404);
  EXPECT_EQ(fetch("PUT", admin + "get", R"({"kind": "explode"})").status, 400);
  EXPECT_EQ(fetch("PUT", admin + "get", R"({"kind": "status", "status": 42})").status, 400);
  EXPECT_EQ(fetch("GET", service().baseUrl() + "/admin/faults").json(), json::object());

  const TempDir dir;
  ServiceProcess faulty(dir.path(),
                        {"--open", "--fault", "create=status:418", "--fault", "get=file-name:a/b"});
  faulty.start();
  const Reply reply = call(faulty, "POST", "/v1/reports/", reportBody("r", {}).dump());
  EXPECT_EQ(reply.status, 418);
  EXPECT_EQ(perform({"GET", faulty.baseUrl() + "/admin/faults", {}, false, {}}, faulty.caFile())
                .json()["get"]["text"],
            "a/b");
}

}  // namespace
}  // namespace kiv::service::test
