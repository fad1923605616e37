#include <algorithm>
#include <functional>

#include "support/PdfText.hpp"
#include "tools/kiv-service/ProvenanceClient.hpp"
#include "tools/kiv-service/ServiceFixture.hpp"

namespace kiv::service::test {
namespace {

using nlohmann::json;

constexpr const char* kPolicy = "2.25.286676183924113436215391935245312734373";

std::string slugOf(const json& object) { return object["slug"].get<std::string>(); }

/// The decoded header or payload of a compact JWS.
std::string jwsPart(const std::string& jws, int index) {
  std::size_t start = 0;
  for (int i = 0; i < index; ++i) start = jws.find('.', start) + 1;
  return fromBase64url(jws.substr(start, jws.find('.', start) - start));
}

class ProvenanceTest : public ServiceTest {
 protected:
  Reply registerKey(const TestDevice& device, const std::string& token = kToken) {
    const std::string body = json{{"public_key", device.publicKey()}}.dump();
    return perform({"POST",
                    service().baseUrl() + "/v1/device-keys/",
                    body,
                    true,
                    {"Authorization: app-token " + token, "Content-Type: application/json"}},
                   service().caFile());
  }

  Reply postStatements(const std::string& slug, const std::vector<std::string>& statements) {
    return call("POST", "/v1/reports/" + slug + "/statements/", json{{"statements", statements}}.dump());
  }

  /// Uploads every file's content; the report is then confirmed and has its manifest.
  void confirm(const json& report, const std::vector<FileSpec>& files) {
    json latest;
    for (std::size_t i = 0; i < files.size(); ++i) latest = upload(report, i, files[i].content);
    ASSERT_EQ(latest["status"], "confirmed");
  }

  std::string manifestOf(const std::string& slug) {
    const Reply reply = call("GET", "/v1/reports/" + slug + "/manifest/");
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.body;
  }

  std::vector<std::string> certificateChain() {
    return splitPem(call("GET", "/v1/provenance/certificates/").body);
  }

  /// A certificate's PDF as it would be stored, with its outside checks at hand.
  std::filesystem::path certificateFile(const std::string& slug, const TemporaryDirectory& dir) {
    const Reply reply = call("POST", "/v1/reports/" + slug + "/pdf/");
    EXPECT_EQ(reply.status, 200) << reply.body;
    std::filesystem::path file = dir.path() / "certificate.pdf";
    writeFile(file, reply.body);
    return file;
  }

  /// An NSS database for pdfsig, trusting the service CA when asked to.
  std::filesystem::path nssDatabase(const TemporaryDirectory& dir, bool trustingTheCa) {
    std::filesystem::path database = dir.path() / (trustingTheCa ? "nss-trusting" : "nss-empty");
    std::filesystem::create_directories(database);
    EXPECT_EQ(runCommand("certutil -N -d sql:" + database.string() + " --empty-password").status, 0);
    if (trustingTheCa) {
      const CommandResult added = runCommand("certutil -A -d sql:" + database.string() +
                                             " -n kiv-ca -t CT,C,C -i " + service().caFile().string());
      EXPECT_EQ(added.status, 0) << added.output;
    }
    return database;
  }

  static std::string pdfsig(const std::filesystem::path& database, const std::filesystem::path& file) {
    return runCommand("pdfsig -nssdir sql:" + database.string() + " " + file.string()).output;
  }
};

TEST_F(ProvenanceTest, DeviceKeysRegisterOncePerToken) {
  const TestDevice device;
  const json expected = {{"key_id", device.keyId()}, {"public_key", device.publicKey()}};
  const Reply first = registerKey(device);
  EXPECT_EQ(first.status, 201);
  EXPECT_EQ(first.json(), expected);
  const Reply again = registerKey(device);
  EXPECT_EQ(again.status, 200) << "a known key is answered, not added again";
  EXPECT_EQ(again.json(), expected);
  EXPECT_EQ(registerKey(device, "another-token").status, 201) << "keys are registered per app token";

  const std::string notAKey =
      "'public_key' must be the base64url text of the 32 bytes of an Ed25519 public key.";
  const std::string raw = fromBase64url(device.publicKey());
  for (const auto& [body, detail] : {
           std::pair{json{{"public_key", device.publicKey() + "="}}, notAKey},
           std::pair{json{{"public_key", base64url(raw.substr(1))}}, notAKey},
           std::pair{json{{"public_key", base64url(raw + "x")}}, notAKey},
           std::pair{json{{"public_key", "+/" + device.publicKey().substr(2)}}, notAKey},
           std::pair{json{{"public_key", 7}},
                     std::string("'public_key' is required and must be non-empty text.")},
       }) {
    const Reply refused = call("POST", "/v1/device-keys/", body.dump());
    EXPECT_EQ(refused.status, 400) << body;
    EXPECT_EQ(refused.detail(), detail) << body;
  }
}

TEST_F(ProvenanceTest, StatementsAreRefusedWithWhatFailedAndNothingIsStored) {
  const TestDevice device;
  const TestDevice stranger;  // registered for another app token only
  ASSERT_EQ(registerKey(device).status, 201);
  ASSERT_EQ(registerKey(stranger, "another-token").status, 201);
  const json report = createReport({{"a.jpg", "alpha"}, {"b.jpg", "beta"}});
  const std::string alpha = sha256Hex("alpha");
  const std::string good = device.statement("a.jpg", alpha);
  const auto withPayload = [&](const std::function<void(json&)>& change) {
    json payload = device.payload("a.jpg", alpha);
    change(payload);
    return device.sign(device.header(), payload);
  };
  const auto withHeader = [&](const std::function<void(json&)>& change) {
    json header = device.header();
    change(header);
    return device.sign(header, device.payload("a.jpg", alpha));
  };
  const std::string otherSignature = device.statement("b.jpg", sha256Hex("beta"));

  struct Case {
    const char* what;
    std::vector<std::string> statements;
    long status;
    std::string detail;
  };
  const std::string at = "statements[0]: ";
  for (const Case& c : {
           Case{"two parts",
                {"eyJhIjoxfQ.eyJhIjoxfQ"},
                400,
                at + "a compact JWS has three parts separated by dots."},
           Case{"padding",
                {good.substr(0, good.find('.')) + "=" + good.substr(good.find('.'))},
                400,
                at + "the JWS header is not base64url text without padding."},
           Case{"spaces in the header",
                {device.signTexts(
                    R"({"alg": "EdDSA", "kid": ")" + device.keyId() + R"(", "typ": "kiv-file-statement"})",
                    device.payload("a.jpg", alpha).dump())},
                400,
                at + "the JWS header is not in canonical JSON form."},
           Case{"escaped slash in the payload",
                {device.signTexts(
                    device.header().dump(),
                    std::string(device.payload("a.jpg", alpha).dump()).insert(1, R"("a\/b":"x",)"))},
                400,
                at + "the JWS payload is not in canonical JSON form."},
           Case{"another algorithm",
                {withHeader([](json& h) { h["alg"] = "none"; })},
                400,
                at + R"(the JWS header's "alg" must be "EdDSA".)"},
           Case{"a typ that is not text",
                {withHeader([](json& h) { h["typ"] = 1; })},
                400,
                at + R"(the header's "typ" must be "kiv-file-statement".)"},
           Case{"a crit header",
                {withHeader([](json& h) { h["crit"] = json::array({"exp"}); })},
                400,
                at + R"(the JWS header has a "crit" member.)"},
           Case{"a field missing",
                {withPayload([](json& p) { p.erase("signed_at"); })},
                400,
                at + "the payload must hold exactly the texts date_taken, file_name, key_id, sha256 and "
                     "signed_at."},
           Case{"an upper-case digest",
                {withPayload([&](json& p) {
                  std::string upper = alpha;
                  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
                  p["sha256"] = upper;
                })},
                400,
                at + "'sha256' must be 64 lower-case hexadecimal digits."},
           Case{"kid and key_id differ",
                {withHeader([&](json& h) { h["kid"] = stranger.keyId(); })},
                400,
                at + R"(the header's "kid" must be the payload's 'key_id'.)"},
           Case{"a key of another token",
                {stranger.statement("a.jpg", alpha)},
                422,
                at + "the device key " + stranger.keyId() + " is not registered for this app token."},
           Case{"a signature of other bytes",
                {good.substr(0, good.rfind('.')) + otherSignature.substr(otherSignature.rfind('.'))},
                422,
                at + "the signature does not verify under the device key " + device.keyId() + "."},
           Case{"another digest",
                {device.statement("a.jpg", sha256Hex("beta"))},
                422,
                at + R"('sha256' is not the report's digest of "a.jpg".)"},
           Case{"an unknown file",
                {device.statement("c.jpg", alpha)},
                404,
                at + R"(the report has no file named "c.jpg".)"},
           Case{"one bad statement among good ones",
                {good, device.statement("b.jpg", alpha)},
                422,
                R"(statements[1]: 'sha256' is not the report's digest of "b.jpg".)"},
           Case{"no statements",
                {},
                400,
                "'statements' is required and must be a non-empty list of JWS texts."},
       }) {
    const Reply refused = postStatements(slugOf(report), c.statements);
    EXPECT_EQ(refused.status, c.status) << c.what << ": " << refused.body;
    EXPECT_EQ(refused.detail(), c.detail) << c.what;
  }
  EXPECT_EQ(postStatements("nosuchreport", {good}).status, 404);

  const Reply accepted = postStatements(slugOf(report), {device.statement("b.jpg", sha256Hex("beta"))});
  ASSERT_EQ(accepted.status, 200) << accepted.body;
  EXPECT_EQ(accepted.json(), json({{"statements", {{{"file_name", "b.jpg"}, {"key_id", device.keyId()}}}}}))
      << "nothing of the refused requests was stored";
}

TEST_F(ProvenanceTest, ConfirmationIssuesASignedManifestOfTheReportAndItsStatements) {
  const TestDevice first;
  const TestDevice second;
  ASSERT_EQ(registerKey(first).status, 201);
  ASSERT_EQ(registerKey(second).status, 201);
  const std::vector<FileSpec> files{{"IMG_1.jpg", "one"}, {"IMG_2.jpg", "two"}, {"Übersicht.png", "three"}};
  const json report = createReport(files, "Garage damage");
  const std::string slug = slugOf(report);
  for (const char* part : {"manifest", "timestamp"}) {
    const Reply early = call("GET", "/v1/reports/" + slug + "/" + part + "/");
    EXPECT_EQ(early.status, 409) << part;
    EXPECT_EQ(early.detail(), "The report has no manifest yet: it is issued when the report is confirmed.");
  }

  const std::string statement1 = first.statement("IMG_1.jpg", sha256Hex("one"));
  const std::string statement2 = second.statement("IMG_2.jpg", sha256Hex("two"));
  const Reply both = postStatements(slug, {statement1, first.statement("IMG_2.jpg", sha256Hex("two"))});
  EXPECT_EQ(both.json()["statements"][1], json({{"file_name", "IMG_2.jpg"}, {"key_id", first.keyId()}}));
  const Reply replaced = postStatements(slug, {statement2});
  EXPECT_EQ(replaced.json()["statements"], json({{{"file_name", "IMG_1.jpg"}, {"key_id", first.keyId()}},
                                                 {{"file_name", "IMG_2.jpg"}, {"key_id", second.keyId()}}}))
      << "a later statement for a file replaces the earlier one";
  confirm(report, files);

  const Reply reply = call("GET", "/v1/reports/" + slug + "/manifest/");
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(reply.headers.at("content-type"), "application/jose");
  const std::string jws = reply.body;
  const std::vector<std::string> chain = certificateChain();
  ASSERT_EQ(chain.size(), 3u);
  const std::string fingerprint = publicKeyFingerprint(chain[0]);
  EXPECT_TRUE(verifiesEs256(jws, chain[0])) << "signed by the signing certificate's key, R || S";
  EXPECT_EQ(jwsPart(jws, 0), R"({"alg":"ES256","kid":")" + fingerprint + R"(","typ":"kiv-manifest"})");

  const std::string payloadText = jwsPart(jws, 1);
  const json payload = json::parse(payloadText);
  EXPECT_EQ(payload.dump(), payloadText) << "canonical JSON";
  EXPECT_TRUE(payload["confirmed_at"].get<std::string>().ends_with("Z"));
  json keys = {{{"key_id", first.keyId()}, {"public_key", first.publicKey()}},
               {{"key_id", second.keyId()}, {"public_key", second.publicKey()}}};
  if (second.keyId() < first.keyId()) std::swap(keys[0], keys[1]);
  const json expected = {
      {"confirmed_at", payload["confirmed_at"]},
      {"created_at", "2024-05-01T11:59:00Z"},
      {"device_keys", keys},
      {"files",
       {{{"file_name", "IMG_1.jpg"}, {"sha256", sha256Hex("one")}, {"statement", statement1}},
        {{"file_name", "IMG_2.jpg"}, {"sha256", sha256Hex("two")}, {"statement", statement2}},
        {{"file_name", "Übersicht.png"}, {"sha256", sha256Hex("three")}, {"statement", nullptr}}}},
      {"issuer", {{"key_id", fingerprint}, {"name", "kiv-service"}}},
      {"name", "Garage damage"},
      {"slug", slug},
      {"version", 1}};
  EXPECT_EQ(payload, expected);

  const Reply late = postStatements(slug, {statement1});
  EXPECT_EQ(late.status, 409);
  EXPECT_EQ(late.detail(), "The report's manifest is already issued; its statements can no longer change.");
  ASSERT_EQ(call("POST", "/v1/reports/" + slug + "/force-status/").status, 200);
  EXPECT_EQ(manifestOf(slug), jws) << "a manifest is issued once";
  EXPECT_EQ(call("GET", "/v1/reports/nosuchreport/manifest/").status, 404);
}

TEST_F(ProvenanceTest, TimeStampVerifiesWithTheOpensslTool) {
  const std::vector<FileSpec> files{{"IMG_1.jpg", "stamped"}};
  const json report = createReport(files);
  confirm(report, files);
  const std::string jws = manifestOf(slugOf(report));
  const json payload = json::parse(jwsPart(jws, 1));
  EXPECT_EQ(payload["device_keys"], json::array()) << "a report without statements still gets a manifest";
  EXPECT_EQ(payload["files"][0]["statement"], nullptr);

  const Reply stamp = call("GET", "/v1/reports/" + slugOf(report) + "/timestamp/");
  ASSERT_EQ(stamp.status, 200);
  EXPECT_EQ(stamp.headers.at("content-type"), "application/timestamp-reply");
  const TemporaryDirectory dir;
  writeFile(dir.path() / "manifest.jws", jws);
  writeFile(dir.path() / "timestamp.tsr", stamp.body);
  writeFile(dir.path() / "other.jws", jws + " ");
  const std::string verify = "openssl ts -verify -in " + (dir.path() / "timestamp.tsr").string() +
                             " -CAfile " + service().caFile().string() + " -data ";
  const CommandResult verified = runCommand(verify + (dir.path() / "manifest.jws").string());
  EXPECT_EQ(verified.status, 0) << verified.output;
  EXPECT_NE(verified.output.find("Verification: OK"), std::string::npos) << verified.output;
  const CommandResult other = runCommand(verify + (dir.path() / "other.jws").string());
  EXPECT_NE(other.status, 0) << "the time-stamp is over this manifest only: " << other.output;

  const std::string text =
      runCommand("openssl ts -reply -text -in " + (dir.path() / "timestamp.tsr").string()).output;
  for (const std::string& expected : {std::string("Status: Granted."), "Policy OID: " + std::string(kPolicy),
                                      std::string("Hash Algorithm: sha256"), std::string("Nonce: 0x")}) {
    EXPECT_NE(text.find(expected), std::string::npos) << expected << " missing from:\n" << text;
  }

  const std::vector<std::string> chain = certificateChain();
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_NE(subjectOf(chain[0]).find("CN = kiv-service document signing"), std::string::npos)
      << subjectOf(chain[0]);
  EXPECT_NE(subjectOf(chain[1]).find("CN = kiv-service time-stamping"), std::string::npos)
      << subjectOf(chain[1]);
  EXPECT_EQ(chain[2], readFile(service().caFile()));
}

TEST_F(ProvenanceTest, CertificateIsSignedAsAWholeTrustedThroughTheCaAndCarriesTheManifest) {
  const TestDevice device;
  ASSERT_EQ(registerKey(device).status, 201);
  const std::vector<FileSpec> files{{"IMG_1.jpg", "signed"}, {"VID_2.mp4", "unsigned"}};
  const json report = createReport(files, "Garage damage");
  const std::string slug = slugOf(report);
  ASSERT_EQ(postStatements(slug, {device.statement("IMG_1.jpg", sha256Hex("signed"))}).status, 200);
  confirm(report, files);
  const std::string jws = manifestOf(slug);
  const TemporaryDirectory dir;
  const std::filesystem::path pdf = certificateFile(slug, dir);

  const std::string untrusted = pdfsig(nssDatabase(dir, false), pdf);
  EXPECT_NE(untrusted.find("Signature Validation: Signature is Valid."), std::string::npos) << untrusted;
  EXPECT_EQ(untrusted.find("Certificate is Trusted."), std::string::npos) << untrusted;
  const std::filesystem::path trusting = nssDatabase(dir, true);
  const std::string trusted = pdfsig(trusting, pdf);
  for (const char* expected :
       {"Signature Type: adbe.pkcs7.detached", "Total document signed",
        "Signature Validation: Signature is Valid.", "Certificate Validation: Certificate is Trusted."}) {
    EXPECT_NE(trusted.find(expected), std::string::npos) << expected << " missing from:\n" << trusted;
  }

  const std::string list = runCommand("pdfdetach -list " + pdf.string()).output;
  EXPECT_EQ(list, "3 embedded files\n1: manifest.json\n2: manifest.jws\n3: timestamp.tsr\n");
  const std::filesystem::path attachments = dir.path() / "attachments";
  std::filesystem::create_directories(attachments);
  ASSERT_EQ(runCommand("pdfdetach -saveall -o " + attachments.string() + " " + pdf.string()).status, 0);
  EXPECT_EQ(readFile(attachments / "manifest.jws"), jws);
  EXPECT_EQ(readFile(attachments / "manifest.json"), jwsPart(jws, 1));
  EXPECT_EQ(readFile(attachments / "timestamp.tsr"), call("GET", "/v1/reports/" + slug + "/timestamp/").body);

  const std::string text = testing_support::pdfText(pdf);
  for (const std::string& expected :
       {std::string("Garage damage"), std::string("Issued by kiv-service"),
        publicKeyFingerprint(certificateChain()[0]), sha256Hex("signed"), sha256Hex("unsigned"),
        "Device key: " + device.keyId(), std::string("Device key: no device statement"),
        std::string("Time-stamped: "), std::string("pdfsig"), std::string("openssl ts -verify")}) {
    EXPECT_NE(text.find(expected), std::string::npos) << expected << " missing from:\n" << text;
  }
  ASSERT_EQ(
      runCommand("pdftoppm -png -r 150 -singlefile " + pdf.string() + " " + (dir.path() / "page").string())
          .status,
      0);
  const CommandResult code = runCommand("zbarimg --raw -q " + (dir.path() / "page.png").string(), false);
  EXPECT_EQ(code.output, "kiv-manifest:" + slug + ":" + sha256Hex(jws) + "\n");

  // Edits after signing: the page's text (in the document information), an attachment's bytes, and an
  // update appended after the signature.
  const std::string original = readFile(pdf);
  const auto edited = [&](const std::string& from, const std::string& to) {
    std::string copy = original;
    const std::size_t at = copy.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return copy.replace(at, from.size(), to);
  };
  for (const auto& [what, bytes, expected] :
       {std::tuple{"title", edited("Evidence certificate: Garage", "Evidence certificate: Garbage"),
                   "Digest Mismatch."},
        std::tuple{"attachment", edited(R"("name":"Garage damage")", R"("name":"Garage damagE")"),
                   "Digest Mismatch."},
        std::tuple{"appended update", original + "1 0 obj\n<< >>\nendobj\n", "Not total document signed"}}) {
    writeFile(dir.path() / "edited.pdf", bytes);
    const std::string verdict = pdfsig(trusting, dir.path() / "edited.pdf");
    EXPECT_NE(verdict.find(expected), std::string::npos) << what << ":\n" << verdict;
  }
}

// The operator's own signing certificate from the same CA, as an operator would make it with openssl.
void issueOperatorCertificate(const std::filesystem::path& data, const TemporaryDirectory& dir) {
  writeFile(dir.path() / "extensions",
            "keyUsage=critical,digitalSignature,nonRepudiation\nextendedKeyUsage=emailProtection\n");
  const CommandResult request = runCommand(
      "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj '/O=Example Evidence "
      "Ltd/CN=Example signer' -keyout " +
      (data / "signing-key.pem").string() + " -out " + (dir.path() / "request.csr").string());
  EXPECT_EQ(request.status, 0) << request.output;
  const CommandResult issued = runCommand(
      "openssl x509 -req -days 30 -in " + (dir.path() / "request.csr").string() + " -CA " +
      (data / "ca.pem").string() + " -CAkey " + (data / "tls" / "ca-key.pem").string() + " -extfile " +
      (dir.path() / "extensions").string() + " -out " + (data / "signing.pem").string());
  EXPECT_EQ(issued.status, 0) << issued.output;
}

TEST_F(ProvenanceTest, ServiceKeysAreMadeOnceAndAnOperatorsCertificateIsUsedInstead) {
  const std::filesystem::path data = service().dataDir();
  const std::vector<std::string> made = certificateChain();
  const std::string madeKey = readFile(data / "signing-key.pem");
  ASSERT_EQ(service().stop(), 0);
  const TemporaryDirectory dir;
  issueOperatorCertificate(data, dir);
  service().start();

  const std::vector<std::string> chain = certificateChain();
  EXPECT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain.at(0), readFile(data / "signing.pem"));
  EXPECT_EQ(chain.at(1), made.at(1)) << "the TSA certificate is made once and kept";
  EXPECT_EQ(chain.at(2), made.at(2));
  const std::vector<FileSpec> files{{"IMG_1.jpg", "operator"}};
  const json report = createReport(files);
  confirm(report, files);
  const std::string jws = manifestOf(slugOf(report));
  EXPECT_TRUE(verifiesEs256(jws, chain.at(0)));
  EXPECT_EQ(json::parse(jwsPart(jws, 1))["issuer"],
            json({{"key_id", publicKeyFingerprint(chain.at(0))}, {"name", "Example Evidence Ltd"}}));

  // The service's own certificate back, for the other tests.
  EXPECT_EQ(service().stop(), 0);
  writeFile(data / "signing.pem", made.at(0));
  writeFile(data / "signing-key.pem", madeKey);
  service().start();
  EXPECT_EQ(certificateChain(), made);
}

}  // namespace
}  // namespace kiv::service::test
