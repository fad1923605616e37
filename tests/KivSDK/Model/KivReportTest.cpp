#include "KivSDK/Model/KivReport.hpp"

#include <gtest/gtest.h>

#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::KivFile;
using kiv::KivReport;
using ProofStatus = KivReport::ProofStatus;

const zu::Date kTen = zu::Date(600000000.0);

TEST(KivReport, NewReportHasAnIdAndNothingElse) {
  const zu::Date before = zu::Date::now();
  const KivReport report("Burst pipe");
  EXPECT_TRUE(report.id);
  EXPECT_NE(report.id, KivReport("Burst pipe").id);
  EXPECT_EQ(report.name, "Burst pipe");
  EXPECT_GE(report.created, before);
  EXPECT_LE(report.created, zu::Date::now());
  EXPECT_TRUE(report.files.empty());
  EXPECT_EQ(report.proofStatus(), ProofStatus::undefined);
  EXPECT_FALSE(report.note || report.slug || report.certificationRequestedDate || report._metadata ||
               report.hash || report.email);
}

TEST(KivReport, StatusTexts) {
  EXPECT_EQ(KivReport::string(ProofStatus::undefined), "undefined");
  EXPECT_EQ(KivReport::string(ProofStatus::pending), "pending");
  EXPECT_EQ(KivReport::string(ProofStatus::confirmed), "confirmed");
  EXPECT_EQ(KivReport::string(ProofStatus::failed), "failed");
  EXPECT_EQ(KivReport::string(ProofStatus::gettingCertificate), "confirmed");

  EXPECT_EQ(KivReport::proofStatus("pending"), ProofStatus::pending);
  EXPECT_EQ(KivReport::proofStatus("confirmed"), ProofStatus::confirmed);
  EXPECT_EQ(KivReport::proofStatus("failed"), ProofStatus::failed);
  EXPECT_EQ(KivReport::proofStatus("undefined"), ProofStatus::undefined);
  for (auto text : {"Pending", "CONFIRMED", "gettingCertificate", "", "pending "}) {
    EXPECT_EQ(KivReport::proofStatus(text), ProofStatus::undefined) << text;
  }
  EXPECT_EQ(zu::fromRawValue<ProofStatus>(4), ProofStatus::gettingCertificate);
  EXPECT_FALSE(zu::fromRawValue<ProofStatus>(5));
}

TEST(KivReportDeathTest, OutOfRangeStoredStatusStopsTheProgram) {
  KivReport report("r");
  report._proofStatusInt = 9;
  EXPECT_DEATH((void)report.proofStatus(), "proof status out of range: 9");
}

TEST(KivReport, CertificationCanBeRequestedOnlyOnce) {
  KivReport report("r");
  EXPECT_FALSE(report.certificationCanBeRequested());
  report.files.emplace_back("a", "jpg", kTen);
  EXPECT_TRUE(report.certificationCanBeRequested());

  KivReport requested = report;
  requested.certificationRequestedDate = kTen;
  EXPECT_FALSE(requested.certificationCanBeRequested());
  KivReport known = report;
  known.slug = "s";
  EXPECT_FALSE(known.certificationCanBeRequested());
  KivReport pending = report;
  pending.setProofStatus(ProofStatus::pending);
  EXPECT_FALSE(pending.certificationCanBeRequested());
}

TEST(KivReport, EqualityPrefersSlugsThenIdsThenNames) {
  KivReport a("a"), b("b");
  a.slug = b.slug = "s";
  EXPECT_EQ(a, b);  // different ids
  b.slug.reset();
  EXPECT_NE(a, b);
  b.id = a.id;
  EXPECT_EQ(a, b);
  a.id.reset();
  b.id.reset();
  EXPECT_NE(a, b);
  b.name = "a";
  EXPECT_EQ(a, b);
}

TEST(KivReport, OrdersByWholeSeconds) {
  KivReport first("1"), second("2");
  first.created = kTen.addingTimeInterval(0.1);
  second.created = kTen.addingTimeInterval(0.8);
  EXPECT_FALSE(first < second || second < first);
  second.created = kTen.addingTimeInterval(1);
  EXPECT_TRUE(first < second);
  EXPECT_TRUE(second >= first);
}

TEST(KivReport, MergeKeepsLocalValuesTheServiceLacks) {
  KivReport local("Kitchen");
  local.note = "after the storm";
  local.email = "me@example.org";
  local.setMetadata(zu::AnyCodable::Dictionary{{"k", "v"}});
  local.files.emplace_back("a", "jpg", kTen);
  local.certificationRequestedDate = kTen;

  KivReport service("Kitchen (renamed)");
  service.id.reset();
  service.slug = "r-1";
  service.setProofStatus(ProofStatus::pending);

  const KivReport merged = local.merge(service);
  EXPECT_EQ(merged.id, local.id);
  EXPECT_EQ(merged.name, "Kitchen (renamed)");
  EXPECT_EQ(merged.note, "after the storm");
  EXPECT_EQ(merged.email, "me@example.org");
  EXPECT_EQ(merged.slug, "r-1");
  EXPECT_EQ(merged.proofStatus(), ProofStatus::pending);
  EXPECT_TRUE(merged.files.empty());                // the newer copy's files as they stand
  EXPECT_FALSE(merged.certificationRequestedDate);  // the newer copy's
  EXPECT_EQ(merged.metadata(), (zu::AnyCodable::Dictionary{{"k", "v"}}));
}

TEST(KivReport, IdenticalForUIComparesNameStatusAndFiles) {
  KivReport a("r"), b("r");
  a.files = {KivFile("x", "jpg", kTen)};
  b.files = {KivFile("x", "jpg", kTen.addingTimeInterval(50))};
  EXPECT_TRUE(a.isIdenticalForUI(b));
  b.files.emplace_back("y", "jpg", kTen);
  EXPECT_FALSE(a.isIdenticalForUI(b));
  b.files.pop_back();
  b.setProofStatus(ProofStatus::failed);
  EXPECT_FALSE(a.isIdenticalForUI(b));
}

TEST(KivReport, PdfsShareOneFolderByName) {
  testing_support::ScopedApplicationData data;
  const KivReport first("Claim"), second("Claim");
  EXPECT_EQ(first.pdfURL().path(), (data.path() / "Documents" / "PDFs" / "Claim.pdf").string());
  EXPECT_EQ(first.pdfURL(), second.pdfURL());
  EXPECT_FALSE(first.hasLocalPDF());
  testing_support::writeFile(first.pdfURL().path(), "%PDF");
  EXPECT_TRUE(second.hasLocalPDF());

  testing_support::writeFile(data.path() / "Documents" / "escape.pdf", "%PDF");
  EXPECT_FALSE(KivReport("../escape").hasLocalPDF());
}

}  // namespace
