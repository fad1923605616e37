// Provenance end to end against the reference service over TLS: statements signed on the device and sent,
// the manifest, its time-stamp and the service's certificates fetched, and the signed certificate checked
// offline; then every tamper of a genuine, service-made set is caught by its check.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "KivSDK/Provenance/KivProvenance.hpp"
#include "KivSDK/Provenance/ProvenanceVerifier.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"
#include "ZuNetworking/ZuError.hpp"
#include "support/CertificateMaker.hpp"
#include "support/ServiceUnderTest.hpp"
#include "support/Tampering.hpp"

namespace {

namespace fs = std::filesystem;
using kiv::KivProvenance;
using kiv::KivReport;
using kivtest::Awaited;
using Receipts = std::vector<KivProvenance::StatementReceipt>;

// What the service issued for a confirmed report, fetched through KivProvenance and KivAPI.
struct Issued {
  KivReport report{""};
  Receipts receipts;
  std::string manifest;
  zu::Data timestamp;
  zu::Data pdf;
};

// The genuine set and what the tests compare it with, built once for the program in folders of its own.
struct ServiceSet {
  testing_support::TemporaryDirectory folder;
  kivtest::GenuineSet set;
  Issued issued;
  std::string chain;
  std::string keyId;
};

template <class Value, class Start>
Value awaited(Start start) {
  Awaited<Value> outcome;
  start(outcome.completion());
  EXPECT_TRUE(outcome.wait());
  EXPECT_EQ(outcome.calls(), 1);
  EXPECT_TRUE(outcome.value()) << outcome.errorText();
  return outcome.value().value_or(Value());
}

class ProvenanceFlow : public kivtest::ServiceTest {
 protected:
  // A report of `files`, signed on the device, sent with its statements, uploaded and confirmed, with what
  // the service issued for it.
  Issued certified(const std::string& name, const std::vector<kiv::KivFile>& files) {
    KivReport report(name);
    report.files = files;
    report = report.withCalculatedHash();
    EXPECT_TRUE(KivProvenance::signStatements(report, report.files));
    report = sent(report);
    Issued issued;
    issued.report = report;
    issued.receipts = awaited<Receipts>([&](auto done) { KivProvenance::sendStatements(report, done); });
    for (kiv::KivFile& file : report.files) file = uploaded(file, report);
    EXPECT_EQ(checkedStatus(report), KivReport::ProofStatus::confirmed);
    issued.manifest = awaited<std::string>([&](auto done) { KivProvenance::fetchManifest(report, done); });
    issued.timestamp = awaited<zu::Data>([&](auto done) { KivProvenance::fetchTimestamp(report, done); });
    EXPECT_TRUE(awaited<bool>([&](auto done) { kiv::KivAPI::generatePDF(report, "en", done); }));
    const std::string pdf = testing_support::readFile(report.pdfURL().path());
    issued.pdf.assign(pdf.begin(), pdf.end());
    issued.report = report;  // with the files' remote addresses
    return issued;
  }

  std::unique_ptr<ServiceSet> makeSet() {
    auto made = std::make_unique<ServiceSet>();
    made->keyId = (*KivProvenance::deviceSigner())->keyId();
    made->issued = certified("Kitchen", {mediaFile("20240501_120000", std::string(200000, 'k'), 7.36e8),
                                         mediaFile("20240501_120500", "second photo", 7.36e8 + 300)});
    const Issued other = certified("Hall", {mediaFile("20240601_090000", "the hall's photo", 7.37e8)});
    made->chain = awaited<std::string>([](auto done) { KivProvenance::fetchCertificates(done); });

    kivtest::GenuineSet& set = made->set;
    set.pdf = made->issued.pdf;
    set.caPEM = testing_support::readFile(kivtest::ServiceEnvironment::address().caFile);
    set.media = made->folder.path() / "media";
    fs::create_directories(set.media);
    for (const kiv::KivFile& file : made->issued.report.files) {
      set.fileNames.push_back(file.name + "." + file.ext);
      fs::copy_file(file.fileURL().path(), set.media / set.fileNames.back());
    }
    const kiv::KivFile& otherFile = other.report.files.front();
    set.otherFile = made->folder.path() / "other.jpg";
    fs::copy_file(otherFile.fileURL().path(), set.otherFile);
    set.otherStatement =
        kiv::ReportStatements::load(*other.report.id)->at(otherFile.name + "." + otherFile.ext);
    set.otherTimestamp = other.timestamp;
    return made;
  }

  // Built by the first test that asks, while the service and the API are set up for it.
  const ServiceSet& serviceSet() {
    static const std::unique_ptr<const ServiceSet> instance(makeSet());
    return *instance;
  }
};

TEST_F(ProvenanceFlow, TheServiceHoldsTheStatementsAndIssuesWhatTheCertificateCarries) {
  const ServiceSet& made = serviceSet();
  const Issued& issued = made.issued;
  ASSERT_EQ(issued.receipts.size(), 2u);
  for (std::size_t i = 0; i < issued.receipts.size(); ++i) {
    EXPECT_EQ(issued.receipts[i].fileName, made.set.fileNames[i]);
    EXPECT_EQ(issued.receipts[i].keyId, made.keyId);
  }
  EXPECT_EQ(kivtest::attachmentText(issued.pdf, "manifest.jws"), issued.manifest);
  EXPECT_EQ(kivtest::attachmentText(issued.pdf, "timestamp.tsr"),
            std::string(issued.timestamp.begin(), issued.timestamp.end()));
  const auto chain = kiv::detail::readCertificates(made.chain);
  ASSERT_TRUE(chain);
  ASSERT_EQ(sk_X509_num(chain->get()), 3);
  EXPECT_EQ(kivtest::pemOf(sk_X509_value(chain->get(), 2)), made.set.caPEM);

  const auto result =
      kiv::ProvenanceVerifier::trusting(made.set.caPEM)->verify(issued.pdf, {made.set.media.string()});
  EXPECT_TRUE(result.passed());
  EXPECT_EQ(result.slug, *issued.report.slug);
  EXPECT_EQ(result.reportName, "Kitchen");
  for (const auto& check : result.checks) EXPECT_TRUE(check.passed) << check.name << ": " << check.message;
}

TEST_F(ProvenanceFlow, TheManifestWaitsForConfirmationAndARefusedStatementIsReported) {
  KivReport report("Porch");
  report.files = {mediaFile("20240701_100000", "porch photo", 7.38e8)};
  report = report.withCalculatedHash();
  ASSERT_TRUE(KivProvenance::signStatements(report, report.files));
  report = sent(report);
  Awaited<std::string> early;
  KivProvenance::fetchManifest(report, early.completion());
  ASSERT_TRUE(early.wait());
  EXPECT_FALSE(early.value());
  EXPECT_EQ(early.error()->zuError()->statusCode(), 409) << early.errorText();

  // A record changed on the device since the report was sent: its statement is about other bytes.
  report.files.front().hash = std::string(64, '0');
  ASSERT_TRUE(KivProvenance::signStatement(report, report.files.front()));
  Awaited<Receipts> refused;
  KivProvenance::sendStatements(report, refused.completion());
  ASSERT_TRUE(refused.wait());
  EXPECT_EQ(refused.calls(), 1);
  EXPECT_FALSE(refused.value());
  EXPECT_EQ(refused.error()->zuError()->statusCode(), 422) << refused.errorText();
}

class ServiceCertificateTamper : public ProvenanceFlow,
                                 public ::testing::WithParamInterface<kivtest::Tamper> {};

TEST_P(ServiceCertificateTamper, IsCaughtByItsCheck) {
  const kivtest::GenuineSet& set = serviceSet().set;
  testing_support::TemporaryDirectory scratch;
  const kivtest::Presented presented = GetParam().apply(set, scratch.path());
  const auto result = kiv::ProvenanceVerifier::trusting(set.caPEM)->verify(presented.pdf, presented.files);
  std::string checks;
  for (const auto& check : result.checks) checks += check.name + ": " + check.message + "\n";
  if (GetParam().failingCheck.empty()) {
    EXPECT_TRUE(result.passed()) << checks;
    return;
  }
  const kiv::ProvenanceCheck* check = result.check(kivtest::checkName(GetParam(), set));
  ASSERT_NE(check, nullptr) << checks;
  EXPECT_FALSE(check->passed) << checks;
  EXPECT_NE(check->message.find(GetParam().failingMessage), std::string::npos) << checks;
  EXPECT_FALSE(result.passed());
}

INSTANTIATE_TEST_SUITE_P(ServiceCertificates, ServiceCertificateTamper,
                         ::testing::ValuesIn(kivtest::tampers()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
