#include <cstdio>
#include <memory>
#include <string>

#include "tools/kiv-service/ServiceFixture.hpp"

namespace kiv::service::test {
namespace {

using nlohmann::json;

TEST_F(ServiceTest, ApiRefusesMissingAndWrongTokens) {
  const std::string url = service().baseUrl() + "/v1/reports/";
  const std::string body = reportBody("r", {}).dump();
  struct Case {
    std::vector<std::string> headers;
    const char* detail;
  };
  for (const Case& c : {Case{{}, "Authentication credentials were not provided."},
                        Case{{"Authorization: app-token wrong"}, "Invalid token."},
                        Case{{std::string("Authorization: Bearer ") + kToken}, "Invalid token."},
                        Case{{"Authorization: app-token "}, "Invalid token."}}) {
    const Reply reply = perform({"POST", url, body, true, c.headers}, service().caFile());
    EXPECT_EQ(reply.status, 401);
    EXPECT_EQ(reply.detail(), c.detail);
  }
  const Reply second =
      perform({"POST", url, body, true, {"Authorization: app-token another-token"}}, service().caFile());
  EXPECT_EQ(second.status, 201) << "every configured token is accepted";
}

// The defaults are what a default build of the SDK expects: the user's own folder (whose CA it trusts) and
// the fixed loopback port. Read from the help text, so that no test binds that port.
TEST(ServiceDefaults, TheUsersFolderAndTheFixedPort) {
  const TempDir home;
  const std::string command =
      "XDG_DATA_HOME='" + home.path().string() + "' '" + KIV_SERVICE_PROGRAM + "' --help 2>&1";
  std::unique_ptr<FILE, decltype(&pclose)> pipe(popen(command.c_str(), "r"), pclose);
  std::string help;
  char block[4096];
  while (std::size_t got = std::fread(block, 1, sizeof block, pipe.get())) help.append(block, got);
  EXPECT_NE(help.find((home.path() / "kiv-service").string()), std::string::npos) << help;
  EXPECT_NE(help.find("=18443"), std::string::npos) << help;
}

TEST_F(ServiceTest, MalformedBodiesAre400WithADetail) {
  const json good = reportBody("r", {{"IMG_1.jpg", "x"}});
  const auto with = [&](const std::string& pointer, const json& value) {
    json body = good;
    body[json::json_pointer(pointer)] = value;
    return body.dump();
  };
  const auto without = [&](const std::string& key) {
    json body = good;
    body.erase(key);
    return body.dump();
  };
  const json twice = reportBody("r", {{"same.jpg", "1"}, {"same.jpg", "2"}});
  struct Case {
    std::string body;
    const char* detail;
  };
  for (const Case& c : {
           Case{"not json", "The request body must be a JSON object."},
           Case{"[1, 2]", "The request body must be a JSON object."},
           Case{"true", "The request body must be a JSON object."},
           Case{without("name"), "'name' is required and must be non-empty text."},
           Case{with("/name", 5), "'name' is required and must be non-empty text."},
           Case{with("/original_created_at", "2024-05-01 12:00:00"),
                "'original_created_at' must be a UTC time like 2024-05-01T12:00:00Z."},
           Case{without("provable_files"), "'provable_files' is required and must be a list."},
           Case{with("/provable_files/0", "IMG_1.jpg"), "provable_files[0]: each file must be an object."},
           Case{with("/provable_files/0/hash", "ABC"),
                "provable_files[0]: 'hash' must be 64 lower-case hexadecimal digits."},
           Case{with("/provable_files/0/file_name", "../../x"),
                "provable_files[0]: 'file_name' must be a plain file name without folders."},
           Case{with("/provable_files/0/file_name", "a/b"),
                "provable_files[0]: 'file_name' must be a plain file name without folders."},
           Case{with("/provable_files/0/file_name", ""),
                "provable_files[0]: 'file_name' is required and must be non-empty text."},
           Case{with("/meta_data", "flat"), "'meta_data' must be an object."},
           Case{twice.dump(), "'file_name' values must be unique within a report."},
       }) {
    const Reply reply = call("POST", "/v1/reports/", c.body);
    EXPECT_EQ(reply.status, 400) << c.body;
    EXPECT_EQ(reply.detail(), c.detail) << c.body;
  }
  EXPECT_EQ(call("POST", "/v1/reports/", with("/note", nullptr)).status, 201) << "null counts as absent";
}

TEST_F(ServiceTest, UnknownSlugsAre404) {
  const json report = ServiceTest::createReport({{"IMG_1.jpg", "x"}});
  const std::string known = "/v1/reports/" + report["slug"].get<std::string>() + "/";
  for (const auto& [method, path] : std::vector<std::pair<std::string, std::string>>{
           {"GET", "/v1/reports/nosuchslug/"},
           {"PATCH", "/v1/reports/nosuchslug/"},
           {"POST", "/v1/reports/nosuchslug/force-status/"},
           {"POST", "/v1/reports/nosuchslug/pdf/"},
           {"GET", "/v1/reports/nosuchslug/file-upload/?type=jpg&file_slug=abc"},
           {"GET", known + "file-upload/?type=jpg&file_slug=nosuchfile"},
           {"GET", "/v1/reports/a/b/"},
       }) {
    const Reply reply = call(method, path, method == "PATCH" ? reportBody("r", {}).dump() : std::string());
    EXPECT_EQ(reply.status, 404) << method << " " << path;
    EXPECT_EQ(reply.detail(), "Not found.") << method << " " << path;
  }
  EXPECT_EQ(call("GET", known + "file-upload/?type=../x&file_slug=abc").status, 400);
}

TEST_F(ServiceTest, StorageUrlsNeedAValidUnexpiredSignature) {
  const json report = createReport({{"IMG_1.jpg", "content"}});
  const json target = uploadTarget(report, 0);
  const std::string upload = target["upload_uri"];
  EXPECT_EQ(upload, uploadTarget(report, 0)["upload_uri"])
      << "the same file gets the same URL within a minute";

  std::string forged = upload;
  forged.back() = forged.back() == '0' ? '1' : '0';
  std::string otherPath = upload;
  otherPath.replace(otherPath.find(".jpg?"), 4, ".png");
  const std::string unsigned_ = upload.substr(0, upload.find('?'));
  // On the shared engines the object store checks the signatures, and words its refusals its own way.
  for (const std::string& url : {forged, otherPath, unsigned_}) {
    const Reply reply = fetch("PUT", url, "content");
    EXPECT_EQ(reply.status, 403) << url;
    if (!onSharedEngines()) {
      EXPECT_EQ(reply.detail(), "The URL's signature is not valid.");
    }
  }
  EXPECT_EQ(fetch("GET", target["file"]).status, 404) << "nothing stored yet";
  EXPECT_EQ(fetch("GET", upload).status, 403) << "an upload URL does not read";
  EXPECT_EQ(fetch("PUT", upload, "content").status, uploadedStatus());
  EXPECT_EQ(fetch("PUT", target["file"], "content").status, 403) << "a file URL does not write";

  // A service whose URLs live zero minutes hands out addresses that are already expired.
  const TempDir dir;
  ServiceProcess shortLived(dir.path(), {"--open", "--upload-url-ttl", "0"});
  shortLived.start();
  const Reply created =
      call(shortLived, "POST", "/v1/reports/", reportBody("r", {{"IMG_1.jpg", "c"}}).dump());
  const json other = created.json();
  const Reply answer =
      call(shortLived, "GET",
           "/v1/reports/" + other["slug"].get<std::string>() +
               "/file-upload/?type=jpg&file_slug=" + other["provable_files"][0]["slug"].get<std::string>());
  const Reply expired = perform({"PUT", answer.json()["upload_uri"], "c", true, {}}, shortLived.caFile());
  EXPECT_EQ(expired.status, 403);
  if (!onSharedEngines()) {
    EXPECT_EQ(expired.detail(), "This URL has expired.");
  }
}

}  // namespace
}  // namespace kiv::service::test
