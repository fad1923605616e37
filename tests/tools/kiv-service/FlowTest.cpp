#include <filesystem>
#include <fstream>

#include "support/PdfText.hpp"
#include "tools/kiv-service/ServiceFixture.hpp"

namespace kiv::service::test {
namespace {

using nlohmann::json;

std::string slugOf(const json& object) { return object["slug"].get<std::string>(); }

TEST_F(ServiceTest, ReportBecomesConfirmedWhenEveryFileArrivesWithItsDigest) {
  const json report = createReport({{"IMG_0001.jpg", "first photo"}, {"VID_0002.mp4", "a short video"}});
  ASSERT_TRUE(report.is_object());
  EXPECT_EQ(report["status"], "pending");
  EXPECT_EQ(report["name"], "Evidence");
  EXPECT_EQ(report["note"], "seen at the site");
  EXPECT_EQ(report["original_created_at"], "2024-05-01T11:59:00Z");
  ASSERT_EQ(report["provable_files"].size(), 2u);
  const json& first = report["provable_files"][0];
  EXPECT_EQ(first["file_name"], "IMG_0001.jpg");
  EXPECT_EQ(first["hash"], sha256Hex("first photo"));
  EXPECT_EQ(first["meta_data"], json({{"camera", "back"}}));
  EXPECT_FALSE(first.contains("file")) << "no content stored yet";
  EXPECT_NE(slugOf(first), slugOf(report["provable_files"][1]));

  const json target = uploadTarget(report, 0);
  EXPECT_EQ(fetch("PUT", target["upload_uri"], "first photo").status, uploadedStatus());
  EXPECT_EQ(call("GET", "/v1/reports/" + slugOf(report) + "/").json()["status"], "pending")
      << "one file is still missing";
  const json confirmed = upload(report, 1, "a short video");
  EXPECT_EQ(confirmed["status"], "confirmed");

  // The "file" address serves the bytes, whole or by range, without the app token.
  const std::string fileUrl = confirmed["provable_files"][0]["file"];
  EXPECT_EQ(fileUrl.substr(0, fileUrl.find('?')),
            target["file"].get<std::string>().substr(0, fileUrl.find('?')));
  const Reply whole = fetch("GET", fileUrl);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, "first photo");
  if (!onSharedEngines()) {  // an object store answers the type the upload declared
    EXPECT_EQ(whole.headers.at("content-type"), "image/jpeg");
  }
  const Reply part = fetch("GET", fileUrl, {}, {"Range: bytes=6-10"});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, "photo");
}

TEST_F(ServiceTest, WrongContentFailsTheReportAndForceStatusReevaluates) {
  const json report = createReport({{"IMG_0001.jpg", "the real bytes"}});
  EXPECT_EQ(upload(report, 0, "the real byteZ")["status"], "failed");
  const std::string forcePath = "/v1/reports/" + slugOf(report) + "/force-status/";
  EXPECT_EQ(call("POST", forcePath).json()["status"], "failed");

  EXPECT_EQ(upload(report, 0, "the real bytes")["status"], "confirmed")
      << "a corrected upload proves the file";
  const Reply forced = call("POST", forcePath);
  EXPECT_EQ(forced.status, 200);
  EXPECT_EQ(forced.json()["status"], "confirmed");
  EXPECT_EQ(forced.json()["provable_files"].size(), 1u);
}

TEST_F(ServiceTest, ForceStatusJudgesStoredContentAsItStandsOnDisk) {
  if (onSharedEngines()) GTEST_SKIP() << "content lies in the object store, which hashes it on every look";
  const json report = createReport({{"IMG_0001.jpg", "the real bytes"}});
  EXPECT_EQ(upload(report, 0, "the real bytes")["status"], "confirmed");
  const std::string forcePath = "/v1/reports/" + slugOf(report) + "/force-status/";
  const std::filesystem::path stored = service().dataDir() / "files" / slugOf(report["provable_files"][0]);
  // Each change also changes the length, which shows on disk whatever the clock's resolution.
  for (const auto& [content, status] :
       {std::pair{"tampered", "failed"}, std::pair{"the real bytes", "confirmed"}, std::pair{"", "failed"}}) {
    std::ofstream(stored, std::ios::binary | std::ios::trunc) << content;
    EXPECT_EQ(call("POST", forcePath).json()["status"], status) << "content \"" << content << "\"";
  }
  std::filesystem::remove(stored);
  EXPECT_EQ(call("POST", forcePath).json()["status"], "pending") << "stored content that is gone";
}

TEST_F(ServiceTest, PatchReplacesFilesByNameAndKeepsKnownSlugs) {
  const json created = createReport({{"a.jpg", "A"}, {"b.jpg", "B"}});
  upload(created, 0, "A");
  json body = reportBody("Renamed", {{"a.jpg", "A"}, {"c.jpg", "C"}});
  body["provable_files"][0]["description"] = "front door";
  body["provable_files"][1]["slug"] = slugOf(created["provable_files"][1]);  // client slugs are not trusted

  const Reply patched = call("PATCH", "/v1/reports/" + slugOf(created) + "/", body.dump());
  ASSERT_EQ(patched.status, 200) << patched.body;
  const json report = patched.json();
  EXPECT_EQ(report["name"], "Renamed");
  EXPECT_EQ(slugOf(report), slugOf(created));
  ASSERT_EQ(report["provable_files"].size(), 2u);
  const json& kept = report["provable_files"][0];
  EXPECT_EQ(slugOf(kept), slugOf(created["provable_files"][0]));
  EXPECT_EQ(kept["description"], "front door");
  EXPECT_TRUE(kept.contains("file")) << "content stays with a kept file";
  const json& added = report["provable_files"][1];
  EXPECT_EQ(added["file_name"], "c.jpg");
  EXPECT_NE(slugOf(added), slugOf(created["provable_files"][1]));
  EXPECT_FALSE(added.contains("file"));
  EXPECT_EQ(report["status"], "pending");

  EXPECT_EQ(fetch("GET", kept["file"]).body, "A");
  const Reply dropped = call("GET", "/v1/reports/" + slugOf(created) + "/file-upload/?type=jpg&file_slug=" +
                                        slugOf(created["provable_files"][1]));
  EXPECT_EQ(dropped.status, 404) << "a file left out of the PATCH is gone";
  EXPECT_EQ(upload(report, 1, "C")["status"], "confirmed");
}

TEST_F(ServiceTest, CertificateListsReportAndDigestsInTheAskedLanguage) {
  const json report = createReport({{"IMG_0001.jpg", "one"}, {"Übersicht.png", "two"}}, "Garage damage");
  upload(report, 0, "one");
  const std::string pdfPath = "/v1/reports/" + slugOf(report) + "/pdf/";
  const TempDir dir;
  for (const auto& [language, heading] : {std::pair{"de-CH, en;q=0.5", "Beweiszertifikat"},
                                          std::pair{"fr, en;q=0.8", "Evidence certificate"}}) {
    const Reply reply = call("POST", pdfPath, {}, {std::string("Accept-Language: ") + language});
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(reply.headers.at("content-type"), "application/pdf");
    ASSERT_EQ(reply.body.substr(0, 5), "%PDF-");
    const std::filesystem::path file = dir.path() / "certificate.pdf";
    std::ofstream(file, std::ios::binary) << reply.body;

    const std::string text = testing_support::pdfText(file);
    EXPECT_NE(text.find(heading), std::string::npos) << text;
    for (const std::string& expected :
         {std::string("Garage damage"), slugOf(report), std::string("IMG_0001.jpg"),
          std::string("Übersicht.png"), sha256Hex("one"), sha256Hex("two"),
          std::string("2024-05-01 12:00:00 UTC"), std::string("sha256sum")}) {
      EXPECT_NE(text.find(expected), std::string::npos) << expected << " missing from:\n" << text;
    }
  }
}

TEST_F(ServiceTest, NewsletterValidatesAndStoresSubscriptions) {
  const json body = {
      {"email", "ann@example.org"},
      {"mailing_lists",
       {{{"name", "news"}, {"status", "subscribed"}, {"merge_fields", {{"PHONE", "+49 30 1234"}}}},
        {{"name", "offers"}, {"status", "unsubscribed"}}}}};
  const Reply reply = call("POST", "/v1/newsletter/", body.dump());
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.json(), json({{"success", true}}));

  const json stored = call("GET", "/v1/newsletter/?email=ann@example.org").json();
  ASSERT_EQ(stored["mailing_lists"].size(), 2u);
  EXPECT_EQ(stored["mailing_lists"][0]["merge_fields"]["PHONE"], "+49 30 1234");
  EXPECT_EQ(stored["mailing_lists"][1]["status"], "unsubscribed");

  for (const char* bad :
       {R"({"mailing_lists": []})", R"({"email": "ann@example.org"})",
        R"({"email": "ann@example.org", "mailing_lists": [{"name": "news"}]})",
        R"({"email": "ann@example.org", "mailing_lists": [{"name": "n", "status": "maybe"}]})",
        R"({"email": "a@b", "mailing_lists": [{"name": "n", "status": "subscribed",
                              "merge_fields": {"PHONE": 1}}]})"}) {
    const Reply refused = call("POST", "/v1/newsletter/", bad);
    EXPECT_EQ(refused.status, 400) << bad;
    EXPECT_FALSE(refused.detail().empty()) << bad;
  }
}

TEST_F(ServiceTest, RestartKeepsReportsFilesAndSubscriptions) {
  const json report = createReport({{"IMG_0001.jpg", "kept"}, {"IMG_0002.jpg", "later"}});
  upload(report, 0, "kept");
  const json subscription = {{"email", "bob@example.org"},
                             {"mailing_lists", {{{"name", "news"}, {"status", "subscribed"}}}}};
  ASSERT_EQ(call("POST", "/v1/newsletter/", subscription.dump()).status, 200);
  const std::string ca = [&] {
    std::ifstream in(service().caFile());
    return std::string(std::istreambuf_iterator<char>(in), {});
  }();

  ASSERT_EQ(service().stop(), 0) << "SIGTERM ends the service cleanly";
  service().start();

  std::ifstream in(service().caFile());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), ca) << "the CA is made once";
  const json reloaded = call("GET", "/v1/reports/" + slugOf(report) + "/").json();
  EXPECT_EQ(reloaded["provable_files"].size(), 2u);
  EXPECT_EQ(reloaded["note"], "seen at the site");
  EXPECT_EQ(fetch("GET", reloaded["provable_files"][0]["file"]).body, "kept");
  EXPECT_EQ(upload(reloaded, 1, "later")["status"], "confirmed");
  EXPECT_EQ(call("GET", "/v1/newsletter/?email=bob@example.org").json()["mailing_lists"][0]["name"], "news");
}

TEST_F(ServiceTest, LogHasOneLinePerRequestAndNeverTheToken) {
  const json report = createReport({{"IMG_0001.jpg", "x"}});
  upload(report, 0, "x");
  std::ifstream in(service().logFile());
  const std::string log(std::istreambuf_iterator<char>(in), {});
  EXPECT_EQ(log.find(kToken), std::string::npos);
  EXPECT_EQ(log.find("signature="), std::string::npos);
  EXPECT_NE(log.find("\"POST /v1/reports/\" 201"), std::string::npos) << log;
  if (!onSharedEngines()) {
    EXPECT_NE(log.find("\"PUT /storage/" + slugOf(report) + "/"), std::string::npos) << log;
  }
}

}  // namespace
}  // namespace kiv::service::test
