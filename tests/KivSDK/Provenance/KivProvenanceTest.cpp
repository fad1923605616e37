// KivProvenance's service operations on a fake session: the requests they build and how they judge answers.
#include "KivSDK/Provenance/KivProvenance.hpp"

#include <gtest/gtest.h>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/FakeService.hpp"
#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "support/CertificateMaker.hpp"

namespace {

using kivtest::json;
using kivtest::Outcome;
using Receipts = std::vector<kiv::KivProvenance::StatementReceipt>;

class ProvenanceService : public kivtest::FakeServiceTest {
 protected:
  void SetUp() override {
    FakeServiceTest::SetUp();
    kiv::KivAPI::setup("tok");
    keyId = (*kiv::KivProvenance::deviceSigner())->keyId();
  }

  // A sent report of three hashed files, two of them with statements.
  kiv::KivReport sentReport() {
    kiv::KivReport report("Kitchen");
    report.slug = "S1";
    for (const char* name : {"a", "b", "c"}) {
      kiv::KivFile file = mediaFile(name, name);
      file.hash = std::string(name) + name;
      report.files.push_back(file);
    }
    statements = *kiv::KivProvenance::signStatements(report, {report.files[0], report.files[2]});
    return report;
  }

  zu::AnyCodable body(std::size_t request) const {
    return *zu::JSONSerialization::jsonObject(*requests()[request].httpBody);
  }

  // Answers downloads with `status` and a file holding `content`.
  void answerDocument(const std::string& content, int status = 200) {
    const auto file = data.path() / "answer";
    testing_support::writeFile(file, content);
    answer = [file, status](const zu::URLRequest&) {
      auto reply = json(status, "");
      reply.location = zu::URL::fileURLWithPath(file.string());
      return reply;
    };
  }

  std::string keyId;
  kiv::ReportStatements::Statements statements;
};

TEST_F(ProvenanceService, RegistersTheDeviceKeyWithTheToken) {
  answer = [this](const zu::URLRequest&) {
    return json(201, R"({"key_id":")" + keyId + R"(","public_key":"x"})");
  };
  Outcome<std::string> registered;
  kiv::KivProvenance::registerDeviceKey(registered.completion());
  ASSERT_EQ(registered.calls, 1);
  EXPECT_EQ(registered.value, keyId);
  const zu::URLRequest& request = requests().at(0);
  EXPECT_EQ(request.httpMethod, "POST");
  EXPECT_EQ(request.url.absoluteString(),
            std::string(kiv::KivAPI::APIEndpoint::baseURL()) + "/v1/device-keys/");
  EXPECT_EQ(request.value("Authorization"), "app-token tok");
  EXPECT_EQ(*body(0).dictionaryValue()->find("public_key")->stringValue(),
            kiv::detail::base64UrlEncode((*kiv::KivProvenance::deviceSigner())->publicKey()));

  answer = [](const zu::URLRequest&) { return json(200, R"({"key_id":"another"})"); };
  Outcome<std::string> mismatched;
  kiv::KivProvenance::registerDeviceKey(mismatched.completion());
  EXPECT_EQ(mismatched.message(), "The service did not register the device key " + keyId);
}

TEST_F(ProvenanceService, SendsTheStatementsOfTheReportsFilesAfterRegisteringTheKey) {
  const kiv::KivReport report = sentReport();
  ASSERT_TRUE(
      kiv::ReportStatements::add(*report.id, {{"gone.jpg", "a statement of a file the report lost"}}));
  kiv::KivFile replaced = report.files[1];
  replaced.hash = "other bytes under b's name";
  ASSERT_TRUE(kiv::KivProvenance::signStatement(report, replaced));
  answer = [this](const zu::URLRequest& request) {
    if (request.url.absoluteString().ends_with("/device-keys/"))
      return json(200, R"({"key_id":")" + keyId + R"("})");
    return json(
        200, R"({"statements":[{"file_name":"a.jpg","key_id":"k1"},{"file_name":"c.jpg","key_id":"k2"}]})");
  };
  Outcome<Receipts> sent;
  kiv::KivProvenance::sendStatements(report, sent.completion());
  ASSERT_EQ(sent.calls, 1);
  EXPECT_EQ(sent.value, (Receipts{{"a.jpg", "k1"}, {"c.jpg", "k2"}})) << sent.error->localizedDescription();
  ASSERT_EQ(requests().size(), 2u);
  EXPECT_TRUE(requests()[1].url.absoluteString().ends_with("/v1/reports/S1/statements/"));
  EXPECT_EQ(requests()[1].httpMethod, "POST");
  const zu::AnyCodable posted = body(1);
  const auto& sentStatements = *posted.dictionaryValue()->find("statements")->arrayValue();
  ASSERT_EQ(sentStatements.size(), 2u);
  EXPECT_EQ(*sentStatements[0].stringValue(), statements.at("a.jpg"));
  EXPECT_EQ(*sentStatements[1].stringValue(), statements.at("c.jpg"));
}

TEST_F(ProvenanceService, SendingFailsAtOnceWithoutSlugOrStatementsAndPassesRefusalsOn) {
  kiv::KivReport report = sentReport();
  report.slug.reset();
  Outcome<Receipts> unsent;
  kiv::KivProvenance::sendStatements(report, unsent.completion());
  EXPECT_EQ(unsent.error->localizedDescription(),
            "The report Kitchen has no slug: send it to the service first");
  kiv::KivReport unsigned_("Hall");
  unsigned_.slug = "S2";
  Outcome<Receipts> none;
  kiv::KivProvenance::sendStatements(unsigned_, none.completion());
  EXPECT_EQ(none.error->localizedDescription(), "The report Hall has no signed statements about its files");
  EXPECT_EQ(unsent.calls + none.calls, 2);
  EXPECT_TRUE(requests().empty());

  report.slug = "S1";
  answer = [this](const zu::URLRequest& request) {
    if (request.url.absoluteString().ends_with("/device-keys/"))
      return json(200, R"({"key_id":")" + keyId + R"("})");
    return json(422, R"({"detail":"the statement of a.jpg does not verify"})");
  };
  Outcome<Receipts> refused;
  kiv::KivProvenance::sendStatements(report, refused.completion());
  ASSERT_EQ(refused.calls, 1);
  EXPECT_NE(refused.error->localizedDescription().find("the statement of a.jpg does not verify"),
            std::string::npos)
      << refused.error->localizedDescription();
}

TEST_F(ProvenanceService, FetchesTheManifestTheTimestampAndTheCertificatesAsTheyAre) {
  kiv::KivReport report("Kitchen");
  report.slug = "S1";
  const kivtest::TestAuthority authority;
  const std::string manifest = kivtest::manifestJWS({{"slug", "S1"}}, authority.signingKey.get(), "kid");
  answerDocument(manifest);
  Outcome<std::string> fetched;
  kiv::KivProvenance::fetchManifest(report, fetched.completion());
  EXPECT_EQ(fetched.value, manifest);
  EXPECT_TRUE(requests().back().url.absoluteString().ends_with("/v1/reports/S1/manifest/"));
  EXPECT_EQ(requests().back().httpMethod, "GET");

  const zu::Data token = kivtest::timestampOver(manifest, authority);
  answerDocument(std::string(token.begin(), token.end()));
  Outcome<zu::Data> stamped;
  kiv::KivProvenance::fetchTimestamp(report, stamped.completion());
  EXPECT_EQ(stamped.value, token);
  EXPECT_TRUE(requests().back().url.absoluteString().ends_with("/v1/reports/S1/timestamp/"));

  answerDocument(authority.caPEM());
  Outcome<std::string> chain;
  kiv::KivProvenance::fetchCertificates(chain.completion());
  EXPECT_EQ(chain.value, authority.caPEM());
  EXPECT_TRUE(requests().back().url.absoluteString().ends_with("/v1/provenance/certificates/"));
}

TEST_F(ProvenanceService, DocumentsThatAreNotWhatTheyShouldBeAreRefused) {
  kiv::KivReport report("Kitchen");
  report.slug = "S1";
  answerDocument("not a document");
  Outcome<std::string> manifest;
  Outcome<zu::Data> token;
  Outcome<std::string> chain;
  kiv::KivProvenance::fetchManifest(report, manifest.completion());
  kiv::KivProvenance::fetchTimestamp(report, token.completion());
  kiv::KivProvenance::fetchCertificates(chain.completion());
  EXPECT_EQ(manifest.message(), "The manifest is not a JWS");
  EXPECT_EQ(token.message(), "The time-stamp is not an RFC 3161 response");
  EXPECT_EQ(chain.message(), "The service's certificates are not PEM certificates");

  answerDocument(R"({"detail":"the report is not confirmed yet"})", 409);
  Outcome<std::string> early;
  kiv::KivProvenance::fetchManifest(report, early.completion());
  ASSERT_EQ(early.calls, 1);
  EXPECT_NE(early.error->localizedDescription().find("the report is not confirmed yet"), std::string::npos)
      << early.error->localizedDescription();
}

}  // namespace
