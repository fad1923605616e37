// The evidence flow against the reference service over TLS: send, change and send again, upload every file,
// proof status, certificate, content back, newsletter.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/PdfText.hpp"
#include "support/ServiceUnderTest.hpp"

namespace {

using kiv::KivAPI;
using kiv::KivReport;
using kivtest::Awaited;
using Status = KivReport::ProofStatus;

class EvidenceFlow : public kivtest::ServiceTest {
 protected:
  /// A report of two photos, hashed, as a host makes it before sending.
  KivReport twoPhotos() {
    KivReport report("Water damage, kitchen");
    report.files.push_back(mediaFile("20240501_120000", std::string(3 << 20, 'k'), 7.36e8));
    report.files.push_back(mediaFile("20240501_120500", "second photo", 7.36e8 + 300));
    return report.withCalculatedHash();
  }
};

TEST_F(EvidenceFlow, SendUploadConfirmCertifyAndBringContentBack) {
  KivReport report = sent(twoPhotos());
  ASSERT_TRUE(report.slug);
  EXPECT_EQ(report.proofStatus(), Status::pending);
  ASSERT_EQ(report.files.size(), 2u);
  EXPECT_TRUE(report.files[0].slug && report.files[1].slug);

  report.note = "Seen by the plumber";
  Awaited<KivReport> patched;
  KivAPI::send(report, "en", patched.completion());
  ASSERT_TRUE(patched.wait());
  ASSERT_TRUE(patched.value()) << patched.errorText();
  EXPECT_EQ(patched.value()->slug, report.slug) << "a report with a slug is replaced, not created again";
  EXPECT_NE(patched.thread(), std::this_thread::get_id()) << "completions run on the networking thread";

  std::vector<std::shared_ptr<Awaited<kiv::KivFile>>> uploads;
  std::vector<std::int64_t> lastProgress(report.files.size(), 0);
  for (std::size_t i = 0; i < report.files.size(); ++i) {
    uploads.push_back(std::make_shared<Awaited<kiv::KivFile>>());
    KivAPI::uploadContent(report.files[i], report, uploads.back()->completion(),
                          [&lastProgress, i](std::int64_t done, std::int64_t) { lastProgress[i] = done; });
  }
  for (std::size_t i = 0; i < uploads.size(); ++i) {
    ASSERT_TRUE(uploads[i]->wait());
    ASSERT_TRUE(uploads[i]->value()) << uploads[i]->errorText();
    EXPECT_TRUE(uploads[i]->value()->remoteUrl);
    EXPECT_EQ(lastProgress[i], std::filesystem::file_size(report.files[i].fileURL().path()));
    report.files[i] = *uploads[i]->value();
  }

  EXPECT_EQ(checkedStatus(report), Status::confirmed);
  Awaited<KivReport> updated;
  KivAPI::update(report, updated.completion());
  ASSERT_TRUE(updated.wait());
  EXPECT_EQ(updated.value()->proofStatus(), Status::confirmed);

  Awaited<bool> pdf;
  KivAPI::generatePDF(report, "en", pdf.completion());
  ASSERT_TRUE(pdf.wait());
  ASSERT_EQ(pdf.value(), true) << pdf.errorText();
  ASSERT_TRUE(report.hasLocalPDF());
  EXPECT_EQ(testing_support::readFile(report.pdfURL().path()).substr(0, 5), "%PDF-");
  const std::string certificate = testing_support::pdfText(report.pdfURL().path());
  for (const kiv::KivFile& file : report.files) {
    EXPECT_NE(certificate.find(*file.hash), std::string::npos) << *file.hash << " missing from:\n"
                                                               << certificate;
  }

  for (const kiv::KivFile& file : report.files) {
    const std::string original = testing_support::readFile(file.fileURL().path());
    std::filesystem::remove(file.fileURL().path());
    Awaited<bool> download;
    std::int64_t expected = 0;
    KivAPI::downloadContent(file, download.completion(),
                            [&expected](std::int64_t, std::int64_t total) { expected = total; });
    ASSERT_TRUE(download.wait());
    ASSERT_EQ(download.value(), true) << download.errorText();
    EXPECT_EQ(testing_support::readFile(file.fileURL().path()), original);
    EXPECT_EQ(expected, static_cast<std::int64_t>(original.size()));
    EXPECT_FALSE(KivAPI::isFileDownloadTaskPending(*file.remoteUrl));
  }
  for (const auto* calls : {&patched, &updated}) EXPECT_EQ(calls->calls(), 1);
  EXPECT_EQ(pdf.calls(), 1);
  for (const auto& upload : uploads) EXPECT_EQ(upload->calls(), 1);
}

TEST_F(EvidenceFlow, ContentThatDiffersFromItsDigestFailsTheReport) {
  const KivReport report = sent(twoPhotos());
  testing_support::writeFile(report.files[1].fileURL().path(), "edited afterwards");
  for (const kiv::KivFile& file : report.files) uploaded(file, report);
  EXPECT_EQ(checkedStatus(report), Status::failed);
}

TEST_F(EvidenceFlow, NewsletterSubscriptionsAreAccepted) {
  const kiv::KivUserProperties properties(
      "ann@example.org", "+41 79 000 00 00",
      {zu::ZuMailList("news", "News", true), zu::ZuMailList("offers", "", false)});
  Awaited<bool> done;
  KivAPI::updateNewsletters(properties, "de", done.completion());
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(done.value(), true) << done.errorText();
}

}  // namespace
