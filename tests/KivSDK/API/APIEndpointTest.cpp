#include "KivSDK/API/APIEndpoint.hpp"

#include <gtest/gtest.h>

#include <ostream>

#include <string>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"

namespace {

using kiv::KivAPI;
using Endpoint = KivAPI::APIEndpoint;

kiv::KivReport reportWithSlug(std::optional<std::string> slug) {
  kiv::KivReport report("Kitchen");
  report.slug = std::move(slug);
  report.files.emplace_back("IMG_1", "jpg", zu::Date(7.0e8));
  return report;
}

std::string jsonText(const zu::AnyCodable::Dictionary& payload) {
  auto data = zu::JSONSerialization::data(payload);
  return data ? std::string(data->begin(), data->end()) : "unwritable";
}

struct EndpointCase {
  std::string name;
  Endpoint endpoint;
  std::string method;
  std::string path;
  std::string payload;  // JSON text, "{}" for none
  // Test names show the case name, not its bytes.
  friend void PrintTo(const EndpointCase& value, std::ostream* out) { *out << value.name; }
};

class APIEndpointTable : public ::testing::TestWithParam<EndpointCase> {};

TEST_P(APIEndpointTable, MethodURLAndPayload) {
  const EndpointCase& expected = GetParam();
  EXPECT_EQ(expected.endpoint.httpMethod(), expected.method);
  EXPECT_EQ(expected.endpoint.url().absoluteString(),
            std::string(Endpoint::baseURL()) + "/v1/" + expected.path);
  EXPECT_EQ(jsonText(expected.endpoint.payload()), expected.payload);
}

const kiv::KivReport kUnsent = reportWithSlug(std::nullopt);
const kiv::KivReport kReport = reportWithSlug("S");
const kiv::KivUserProperties kProperties("a@b.example", std::nullopt, {zu::ZuMailList("news", "News", true)});

INSTANTIATE_TEST_SUITE_P(
    EveryCase, APIEndpointTable,
    ::testing::Values(
        EndpointCase{"postReport", Endpoint::postReport(kUnsent), "POST", "reports/",
                     jsonText(kUnsent.dictionaryRepresentation())},
        EndpointCase{"patchReport", Endpoint::patchReport(kReport), "PATCH", "reports/S/",
                     jsonText(kReport.dictionaryRepresentation())},
        EndpointCase{"getReport", Endpoint::getReport(kReport), "GET", "reports/S/", "{}"},
        EndpointCase{"getFileUploadURL", Endpoint::getFileUploadURL(kReport, kReport.files[0]), "GET",
                     "reports/S/file-upload/", R"({"type":"jpg","file_slug":null})"},
        EndpointCase{"postForceStatusUpdateForReport", Endpoint::postForceStatusUpdateForReport(kReport),
                     "POST", "reports/S/force-status/", "{}"},
        EndpointCase{"postGenerateReportPDF", Endpoint::postGenerateReportPDF(kReport), "POST",
                     "reports/S/pdf/", "{}"},
        EndpointCase{"postUserProperties", Endpoint::postUserProperties(kProperties), "POST", "newsletter/",
                     R"({"mailing_lists":[{"name":"news","status":"subscribed"}],"email":"a@b.example"})"}),
    [](const auto& info) { return info.param.name; });

TEST(APIEndpoint, CasesKeepTheirOrderAndCopiesOfTheirRecords) {
  kiv::KivReport report = reportWithSlug("S");
  const Endpoint endpoint = Endpoint::patchReport(report);
  report.slug = "changed";
  EXPECT_EQ(endpoint.url().lastPathComponent(), "S");
  EXPECT_EQ(static_cast<int>(Endpoint::Case::postReport), 0);
  EXPECT_EQ(static_cast<int>(Endpoint::postUserProperties(kProperties).endpointCase()), 6);
  EXPECT_EQ(static_cast<int>(Endpoint::getFileUploadURL(kReport, kReport.files[0]).endpointCase()), 3);
}

TEST(APIEndpoint, FileUploadPayloadNamesTheTypeFirstAndTheFileSlugWhenThereIsOne) {
  kiv::KivFile file = kReport.files[0];
  file.slug = "f1";
  const auto payload = Endpoint::getFileUploadURL(kReport, file).payload();
  ASSERT_EQ(payload.size(), 2u);
  EXPECT_EQ(payload.begin()->first, "type");
  EXPECT_EQ(jsonText(payload), R"({"type":"jpg","file_slug":"f1"})");
}

TEST(APIEndpoint, SlugIsInsertedUnescapedSoASlashDeepensThePath) {
  const Endpoint endpoint = Endpoint::getReport(reportWithSlug("a/b"));
  EXPECT_EQ(endpoint.url().absoluteString(), std::string(Endpoint::baseURL()) + "/v1/reports/a/b/");
}

TEST(APIEndpointDeathTest, MissingSlugOrUnparsableURLStopsTheProgram) {
  EXPECT_DEATH(static_cast<void>(Endpoint::patchReport(kUnsent).url()), "needs the report's slug");
  EXPECT_DEATH(static_cast<void>(Endpoint::postGenerateReportPDF(kUnsent).url()), "needs the report's slug");
  EXPECT_DEATH(static_cast<void>(Endpoint::getReport(reportWithSlug("a b")).url()), "Not a URL");
}

}  // namespace
