#include <gtest/gtest.h>

#include <ostream>

#include <filesystem>
#include <functional>
#include <string>

#include "FakeService.hpp"
#include "KivSDK/API/KivUserProperties.hpp"
#include "ZuDate/ZuDate.hpp"

namespace {

using kiv::KivAPI;
using kivtest::FakeServiceTest;
using kivtest::ReportOutcome;
using kivtest::SuccessOutcome;
using zu::AnyCodable;

constexpr std::string_view kMissingValues =
    "Response JSON dictionary is missing 'status', 'slug' value and/or 'provable_files'";
constexpr std::string_view kFilesDiffer =
    "The files in the report do not correspond to the files in local storage";
constexpr std::string_view kMissingSlug = "File for request is missing mandatory 'slug' value";
constexpr std::string_view kMissingStatus = "Response JSON dictionary is missing 'status' value";

kiv::KivReport twoFileReport() {
  kiv::KivReport report("Kitchen");
  report.note = "seen at the site";
  report.files.emplace_back("IMG_1", "jpg", zu::Date(7.0e8));
  report.files.emplace_back("IMG_2", "jpg", zu::Date(7.0e8 + 10));
  report.files[0].hash = std::string(64, 'a');
  return report;
}

// A file object as the service answers it, with a slug of its own.
AnyCodable serviceFile(const std::string& fileName, zu::Date taken, const std::string& slug) {
  return AnyCodable::Dictionary{
      {"slug", slug},
      {"file_name", fileName},
      {"original_created_at", zu::stringWithAPIFormat(taken, zu::DateFormatterStyle::api)},
      {"file", "https://storage.test/" + slug}};
}

const AnyCodable kFirst = serviceFile("IMG_1.jpg", zu::Date(7.0e8), "f1");
const AnyCodable kSecond = serviceFile("IMG_2.jpg", zu::Date(7.0e8 + 10), "f2");

// A service answer; an empty value leaves its key out.
zutest::Answer serviceAnswer(const AnyCodable& status, const AnyCodable& slug, const AnyCodable& files) {
  AnyCodable::Dictionary body;
  for (auto& [key, value] : {std::pair{"status", status}, {"slug", slug}, {"provable_files", files}}) {
    if (!value.isEmpty()) body.set(key, value);
  }
  auto data = zu::JSONSerialization::data(body);
  return kivtest::json(201, std::string(data->begin(), data->end()));
}

struct SendCase {
  std::string name;
  zutest::Answer answer;
  std::string_view message;  // empty: accepted
  // Test names show the case name, not its bytes.
  friend void PrintTo(const SendCase& value, std::ostream* out) { *out << value.name; }
};

class SendAnswers : public FakeServiceTest, public ::testing::WithParamInterface<SendCase> {};

TEST_P(SendAnswers, AreJudgedInOrder) {
  answer = [this](const zu::URLRequest&) { return GetParam().answer; };
  ReportOutcome outcome;
  KivAPI::send(twoFileReport(), "en", outcome.completion());
  ASSERT_EQ(outcome.calls, 1);
  EXPECT_EQ(outcome.message(), GetParam().message);
  EXPECT_NE(outcome.value.has_value(), outcome.error.has_value());
}

const AnyCodable kUnreadable = AnyCodable::Dictionary{{"file_name", "../x.jpg"}};

INSTANTIATE_TEST_SUITE_P(
    Answers, SendAnswers,
    ::testing::Values(
        SendCase{"FilesInAnotherOrder", serviceAnswer("pending", "S", AnyCodable::Array{kSecond, kFirst}),
                 ""},
        SendCase{"UnreadableFileSkipped",
                 serviceAnswer("pending", "S", AnyCodable::Array{kFirst, kUnreadable, kSecond}), ""},
        SendCase{"UnknownStatusIsNoError", serviceAnswer("weird", "S", AnyCodable::Array{kFirst, kSecond}),
                 ""},
        SendCase{"NoStatus", serviceAnswer({}, "S", AnyCodable::Array{kFirst, kSecond}), kMissingValues},
        SendCase{"SlugNotText", serviceAnswer("pending", 7, AnyCodable::Array{kFirst, kSecond}),
                 kMissingValues},
        SendCase{"FilesNotAList", serviceAnswer("pending", "S", AnyCodable::Dictionary{}), kMissingValues},
        SendCase{"FileNotAnObject", serviceAnswer("pending", "S", AnyCodable::Array{kFirst, "IMG_2.jpg"}),
                 kMissingValues},
        SendCase{"FileMissing", serviceAnswer("pending", "S", AnyCodable::Array{kFirst}), kFilesDiffer},
        SendCase{"FileMore",
                 serviceAnswer("pending", "S",
                               AnyCodable::Array{kFirst, kSecond,
                                                 serviceFile("IMG_3.jpg", zu::Date(7.0e8), "f3")}),
                 kFilesDiffer}),
    [](const auto& info) { return info.param.name; });

using KivAPIReports = FakeServiceTest;

TEST_F(KivAPIReports, SendPostsANewReportAndMergesTheServiceAnswer) {
  answer = [](const zu::URLRequest&) {
    return serviceAnswer("confirmed", "S", AnyCodable::Array{kSecond, kFirst});
  };
  const kiv::KivReport report = twoFileReport();
  ReportOutcome outcome;
  KivAPI::send(report, "de-CH", outcome.completion());
  ASSERT_TRUE(outcome.value) << outcome.message();

  ASSERT_EQ(requests().size(), 1u);
  const zu::URLRequest& sent = requests()[0];
  EXPECT_EQ(sent.httpMethod, "POST");
  EXPECT_TRUE(sent.url.absoluteString().ends_with("/v1/reports/"));
  EXPECT_EQ(sent.value("Accept-Language"), "de-CH");
  EXPECT_EQ(sent.httpBody, zu::JSONSerialization::data(report.dictionaryRepresentation()).value());

  const kiv::KivReport& accepted = *outcome.value;
  EXPECT_EQ(accepted.slug, "S");
  EXPECT_EQ(accepted.proofStatus(), kiv::KivReport::ProofStatus::confirmed);
  ASSERT_EQ(accepted.files.size(), 2u);
  EXPECT_EQ(accepted.files[0].slug, "f1");
  EXPECT_EQ(accepted.files[1].slug, "f2");
  EXPECT_EQ(accepted.files[1].remoteUrl->absoluteString(), "https://storage.test/f2");
  EXPECT_EQ(accepted.note, report.note);
  EXPECT_EQ(accepted.id, report.id);
}

TEST_F(KivAPIReports, SendPatchesAReportWithSlugAndRefusesOneOutOfOrder) {
  kiv::KivReport report = twoFileReport();
  report.slug = "S";
  answer = [](const zu::URLRequest&) {
    return serviceAnswer("pending", "S", AnyCodable::Array{kFirst, kSecond});
  };
  ReportOutcome patched;
  KivAPI::send(report, "en", patched.completion());
  EXPECT_TRUE(patched.value) << patched.message();
  EXPECT_EQ(requests().back().httpMethod, "PATCH");
  EXPECT_TRUE(requests().back().url.absoluteString().ends_with("/v1/reports/S/"));

  std::swap(report.files[0], report.files[1]);
  ReportOutcome refused;
  KivAPI::send(report, "en", refused.completion());
  EXPECT_EQ(refused.message(), kFilesDiffer) << "the report's own files must be in order";
}

TEST_F(KivAPIReports, NetworkingErrorsPassUnchanged) {
  answer = [](const zu::URLRequest&) { return kivtest::json(503, R"({"detail": "Injected fault."})"); };
  kiv::KivReport report = twoFileReport();
  report.slug = "S";
  ReportOutcome sent, updated;
  SuccessOutcome pdf;
  KivAPI::send(report, "en", sent.completion());
  KivAPI::update(report, updated.completion());
  KivAPI::generatePDF(report, "en", pdf.completion());
  for (const auto* error : {&sent.error, &updated.error, &pdf.error}) {
    ASSERT_TRUE(*error);
    EXPECT_EQ((*error)->code(), 1003);
    EXPECT_EQ((*error)->zuError()->statusCode(), 503);
  }
  EXPECT_EQ(sent.error->localizedDescription(), "\nInjected fault.");
  EXPECT_EQ(pdf.value, false);
}

TEST_F(KivAPIReports, StatusRefreshesChangeOnlyTheStatus) {
  kiv::KivReport report = twoFileReport();
  report.slug = "S";
  answer = [](const zu::URLRequest&) { return serviceAnswer("failed", "other", AnyCodable::Array{kFirst}); };
  using Operation = std::function<void(const kiv::KivReport&, KivAPI::ReportCompletion)>;
  const std::vector<std::tuple<Operation, std::string, std::string>> operations{
      {KivAPI::update, "GET", "/v1/reports/S/"},
      {KivAPI::forceStatusUpdate, "POST", "/v1/reports/S/force-status/"}};
  for (const auto& [operation, method, path] : operations) {
    ReportOutcome outcome;
    operation(report, outcome.completion());
    ASSERT_TRUE(outcome.value) << path;
    EXPECT_EQ(outcome.value->proofStatus(), kiv::KivReport::ProofStatus::failed);
    outcome.value->setProofStatus(report.proofStatus());
    EXPECT_TRUE(outcome.value->isIdenticalForUI(report));
    EXPECT_EQ(outcome.value->slug, "S");
    EXPECT_FALSE(outcome.value->files[0].slug);
    EXPECT_EQ(requests().back().httpMethod, method);
    EXPECT_TRUE(requests().back().url.absoluteString().ends_with(path));
    EXPECT_FALSE(requests().back().value("Accept-Language"));
  }

  answer = [](const zu::URLRequest&) { return kivtest::json(200, R"({"status": 2})"); };
  for (const auto& [operation, method, path] : operations) {
    ReportOutcome outcome;
    operation(report, outcome.completion());
    EXPECT_EQ(outcome.message(), kMissingStatus) << path;
  }
}

TEST_F(KivAPIReports, GeneratePDFStoresTheCertificateAtThePDFLocation) {
  kiv::KivReport report = twoFileReport();
  report.slug = "S";
  const auto certificate = data.path() / "answer.pdf";
  testing_support::writeFile(certificate, "%PDF-1.4 certificate");
  answer = [&](const zu::URLRequest&) {
    auto reply = kivtest::json(200, "");
    reply.location = zu::URL::fileURLWithPath(certificate.string());
    return reply;
  };
  SuccessOutcome outcome;
  KivAPI::generatePDF(report, "", outcome.completion());
  ASSERT_EQ(outcome.value, true) << outcome.error->localizedDescription();
  EXPECT_EQ(testing_support::readFile(report.pdfURL().path()), "%PDF-1.4 certificate");
  EXPECT_TRUE(report.hasLocalPDF());
  EXPECT_EQ(requests()[0].httpMethod, "POST");
  EXPECT_TRUE(requests()[0].url.absoluteString().ends_with("/v1/reports/S/pdf/"));
  EXPECT_EQ(requests()[0].value("Accept-Language"), "") << "an empty language is still sent";
}

TEST_F(KivAPIReports, EveryOperationGivenAnEmptyLanguageSendsTheHeaderEmpty) {
  kiv::KivReport report = twoFileReport();
  report.slug = "S";
  ReportOutcome sent;
  SuccessOutcome pdf, newsletters;
  KivAPI::send(report, "", sent.completion());
  KivAPI::generatePDF(report, "", pdf.completion());
  KivAPI::updateNewsletters(kiv::KivUserProperties("a@b.example", std::nullopt, {}), "",
                            newsletters.completion());
  ASSERT_EQ(requests().size(), 3u);
  for (const zu::URLRequest& request : requests()) {
    EXPECT_EQ(request.value("Accept-Language"), "") << request.url.absoluteString();
  }
}

TEST_F(KivAPIReports, MissingSlugFailsAtOnceAndSendsNothing) {
  const kiv::KivReport report = twoFileReport();
  ReportOutcome updated, forced;
  SuccessOutcome pdf;
  KivAPI::update(report, updated.completion());
  KivAPI::forceStatusUpdate(report, forced.completion());
  KivAPI::generatePDF(report, "en", pdf.completion());
  EXPECT_EQ(updated.message(), kMissingSlug);
  EXPECT_EQ(forced.message(), kMissingSlug);
  EXPECT_EQ(pdf.message(), kMissingSlug);
  EXPECT_EQ(pdf.value, false);
  EXPECT_EQ(updated.calls + forced.calls + pdf.calls, 3);
  EXPECT_TRUE(requests().empty());

  kiv::KivReport outside = report;
  outside.slug = "S";
  outside.name = "../escape";
  SuccessOutcome refused;
  KivAPI::generatePDF(outside, "en", refused.completion());
  EXPECT_EQ(refused.message(), "The report's name cannot be used as the file name of its PDF");
  EXPECT_TRUE(requests().empty());
}

}  // namespace
