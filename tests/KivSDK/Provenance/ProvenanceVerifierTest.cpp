// The offline checks of a signed certificate, against certificates made here the way the service makes them.
#include "KivSDK/Provenance/ProvenanceVerifier.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "KivSDK/Provenance/FileStatement.hpp"
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "support/CertificateMaker.hpp"
#include "support/Tampering.hpp"
#include "support/TemporaryDirectory.hpp"

namespace kivtest {
namespace {

namespace fs = std::filesystem;
using testing_support::writeFile;

// One report's signed certificate, its media, and what the tampers borrow from a second report.
struct Made {
  testing_support::TemporaryDirectory folder;
  TestAuthority authority;
  GenuineSet set;
};

struct Report {
  std::string json;
  std::string jws;
  zu::Data timestamp;
};

std::string statementAbout(const fs::path& file, const kiv::DeviceSigner& key) {
  kiv::KivFile record(file.stem().string(), file.extension().string().substr(1), zu::Date(7.3e8));
  record.hash = zu::hexString(*zu::sha256OfFile(file.string()));
  return *kiv::FileStatement::about(record, key.keyId(), zu::Date(7.3e8 + 60))->sign(key);
}

// The certificate of the files in `media` (all with statements unless `unsigned`), as the service issues it.
Report certify(const TestAuthority& authority, const std::string& slug, const std::vector<fs::path>& media,
               const kiv::DeviceSigner& key, const std::string& unsignedFile = "") {
  std::vector<ManifestEntry> entries;
  for (const fs::path& file : media) {
    const std::string name = file.filename().string();
    entries.push_back({name, zu::hexString(*zu::sha256OfFile(file.string())),
                       name == unsignedFile ? "" : statementAbout(file, key)});
  }
  const auto payload = manifestPayload(slug, authority.fingerprint(), entries, {&key});
  Report report{*kiv::detail::canonicalJSON(zu::AnyCodable(payload)),
                manifestJWS(payload, authority.signingKey.get(), authority.fingerprint()),
                {}};
  report.timestamp = timestampOver(report.jws, authority);
  return report;
}

zu::Data pdfOf(const TestAuthority& authority, const Report& report) {
  return signedCertificatePdf(
      {{"manifest.json", report.json},
       {"manifest.jws", report.jws},
       {"timestamp.tsr", std::string(report.timestamp.begin(), report.timestamp.end())}},
      authority.signing.get(), authority.signingKey.get());
}

std::unique_ptr<Made> makeSet() {
  auto made = std::make_unique<Made>();
  const fs::path root = made->folder.path();
  const auto key = kiv::DeviceKey::at((root / "device.pem").string());
  GenuineSet& set = made->set;
  set.media = root / "media";
  fs::create_directories(set.media);
  set.fileNames = {"20240501_095800.jpg", "20240501_095900.mp4"};
  writeFile(set.media / set.fileNames[0], std::string(5000, 'p') + "photo");
  writeFile(set.media / set.fileNames[1], std::string(9000, 'v') + "video");
  const Report report =
      certify(made->authority, "slug1", {set.media / set.fileNames[0], set.media / set.fileNames[1]}, **key);
  set.pdf = pdfOf(made->authority, report);
  set.caPEM = made->authority.caPEM();

  fs::create_directories(root / "other");
  set.otherFile = root / "other" / "20240601_120000.jpg";
  writeFile(set.otherFile, "another report's photo");
  const Report other = certify(made->authority, "slug2", {set.otherFile}, **key);
  set.otherStatement = statementAbout(set.otherFile, **key);
  set.otherTimestamp = other.timestamp;
  return made;
}

// Built once for the program: the tampers derive from it in memory and in scratch folders.
const Made& made() {
  static const std::unique_ptr<const Made> instance(makeSet());
  return *instance;
}

kiv::ProvenanceVerification verified(const Presented& presented,
                                     const std::string& caPEM = made().set.caPEM) {
  return kiv::ProvenanceVerifier::trusting(caPEM)->verify(presented.pdf, presented.files);
}

std::string describe(const kiv::ProvenanceVerification& result) {
  std::string text;
  for (const auto& check : result.checks) {
    text += (check.passed ? "  ok   " : "  FAIL ") + check.name + ": " + check.message + "\n";
  }
  return text;
}

class CertificateTamper : public ::testing::TestWithParam<Tamper> {};

TEST_P(CertificateTamper, IsCaughtByItsCheckAndTheGenuineSetHoldsEverywhere) {
  const GenuineSet& set = made().set;
  testing_support::TemporaryDirectory scratch;
  const auto result = verified(GetParam().apply(set, scratch.path()));
  if (GetParam().failingCheck.empty()) {
    EXPECT_TRUE(result.passed()) << describe(result);
    std::vector<std::string> names;
    for (const auto& check : result.checks) names.push_back(check.name);
    EXPECT_EQ(names,
              (std::vector<std::string>{"pdf-signature", "pdf-coverage", "manifest-signature", "timestamp",
                                        "statement:" + set.fileNames[0], "statement:" + set.fileNames[1],
                                        "file:" + set.fileNames[0], "file:" + set.fileNames[1]}));
    EXPECT_EQ(result.slug, "slug1");
    EXPECT_EQ(result.issuerName, "Test Service");
    EXPECT_EQ(result.issuerKeyId, made().authority.fingerprint());
    EXPECT_FALSE(result.issuedAt.empty());
    return;
  }
  const kiv::ProvenanceCheck* check = result.check(checkName(GetParam(), set));
  ASSERT_NE(check, nullptr) << describe(result);
  EXPECT_FALSE(check->passed) << describe(result);
  EXPECT_NE(check->message.find(GetParam().failingMessage), std::string::npos) << describe(result);
  EXPECT_FALSE(result.passed());
}

INSTANTIATE_TEST_SUITE_P(Certificates, CertificateTamper, ::testing::ValuesIn(tampers()),
                         [](const auto& info) { return info.param.name; });

TEST(ProvenanceVerifier, AnotherCAIsNotTrustedForTheSignatureNorTheTimestamp) {
  const TestAuthority stranger("Another CA");
  const auto result = verified({made().set.pdf, {}}, stranger.caPEM());
  EXPECT_NE(result.check("pdf-signature")->message.find("does not chain to the CA"), std::string::npos)
      << describe(result);
  EXPECT_FALSE(result.check("timestamp")->passed);
  EXPECT_TRUE(result.check("pdf-coverage")->passed);
}

TEST(ProvenanceVerifier, WithoutFilesOnlyTheDocumentIsCheckedAndAStrayFileFails) {
  const GenuineSet& set = made().set;
  const auto document = verified({set.pdf, {}});
  EXPECT_TRUE(document.passed()) << describe(document);
  EXPECT_EQ(document.check("file:" + set.fileNames[0]), nullptr);

  const auto stray = verified({set.pdf, {set.media.string(), set.otherFile.string()}});
  const auto* check = stray.check("file:20240601_120000.jpg");
  ASSERT_NE(check, nullptr);
  EXPECT_EQ(check->message, set.otherFile.string() + " is not a file of the manifest");
}

TEST(ProvenanceVerifier, AFileWithoutDeviceStatementDoesNotHold) {
  const Made& base = made();
  testing_support::TemporaryDirectory folder;
  const auto key = kiv::DeviceKey::at((folder.path() / "device.pem").string());
  const fs::path file = base.set.media / base.set.fileNames[0];
  const Report report = certify(base.authority, "slug3", {file}, **key, base.set.fileNames[0]);
  const auto result = verified({pdfOf(base.authority, report), {}});
  EXPECT_EQ(result.check("statement:" + base.set.fileNames[0])->message,
            "no device statement: nothing shows which device captured this file");
  EXPECT_TRUE(result.check("manifest-signature")->passed) << describe(result);
}

TEST(ProvenanceVerifier, ATimestampUnderAnotherPolicyDoesNotHold) {
  const Made& base = made();
  const std::string jws = attachmentText(base.set.pdf, "manifest.jws");
  const zu::Data token = timestampOver(jws, base.authority, "1.2.3.4");
  const auto result = verified(
      {withReplacedAttachments(base.set.pdf, {{"timestamp.tsr", std::string(token.begin(), token.end())}}),
       {}});
  EXPECT_NE(result.check("timestamp")->message.find("its policy 1.2.3.4 is not the service's"),
            std::string::npos);
}

TEST(ProvenanceVerifier, BytesThatAreNoPdfFailEveryDocumentCheck) {
  const auto result = verified({zu::Data{'%', 'P', 'D', 'F'}, {made().set.media.string()}});
  for (const char* name : {"pdf-signature", "pdf-coverage", "manifest-signature", "timestamp"}) {
    ASSERT_NE(result.check(name), nullptr) << name;
    EXPECT_NE(result.check(name)->message.find("not a readable PDF: no startxref near the end"),
              std::string::npos)
        << name << ": " << result.check(name)->message;
  }
  EXPECT_FALSE(result.passed());
}

TEST(ProvenanceVerifier, RefusesACAThatIsNoCertificate) {
  EXPECT_FALSE(kiv::ProvenanceVerifier::trusting("not a certificate"));
  EXPECT_FALSE(kiv::ProvenanceVerifier::trusting(""));
  EXPECT_TRUE(kiv::ProvenanceVerifier::trusting(made().set.caPEM));
}

}  // namespace
}  // namespace kivtest
