#include "KivSDK/API/KivCertification.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <ostream>
#include <string>
#include <vector>

#include "FakeService.hpp"

namespace {

using kiv::KivCertification;
using Step = KivCertification::Step;

// The service's answer to the report: its slug "S" and its one file, "file" telling whether the service
// holds the file's content already.
std::string sentAnswer(bool contentHeld) {
  return R"({"status": "pending", "slug": "S", "provable_files": [{"slug": "f1", "file_name": "IMG_1.jpg",
            "original_created_at": "2023-03-08T20:26:40Z")" +
         std::string(contentHeld ? R"(, "file": "https://storage.test/f1")" : "") + "}]}";
}

struct Case {
  const char* name;
  /// Answers by method and path ending; a request that none answers gets 500.
  std::vector<std::tuple<const char*, const char*, int, std::string>> answers;
  std::optional<Step> failedStep;
  std::string domain;
  long code;
  std::string message;
  /// The report's slug and status at the end.
  std::optional<std::string> slug;
  kiv::KivReport::ProofStatus status;
};

void PrintTo(const Case& flow, std::ostream* out) { *out << flow.name; }

const std::string kNetworking = "com.zumbrel.networking";
const std::string kFlow(KivCertification::errorDomain);

class Certification : public kivtest::FakeServiceTest, public ::testing::WithParamInterface<Case> {};

TEST_P(Certification, EndsAtTheFirstStepThatFailsAndKeepsWhatWasDone) {
  const Case& flow = GetParam();
  answer = [&](const zu::URLRequest& request) {
    const std::string url = request.url.absoluteString();
    for (const auto& [method, ending, status, body] : flow.answers) {
      if (request.httpMethod == method && url.ends_with(ending)) return kivtest::json(status, body);
    }
    return kivtest::json(500, R"({"detail": "no"})");
  };
  kiv::KivReport report("Kitchen");
  report.files.push_back(mediaFile("IMG_1", "photo bytes"));

  std::promise<KivCertification::Outcome> finished;
  KivCertification::certify(
      report, {.language = "de", .confirmationTimeout = std::chrono::seconds(0), .progress = {}},
      [&](KivCertification::Outcome outcome) { finished.set_value(std::move(outcome)); });
  auto ending = finished.get_future();
  ASSERT_EQ(ending.wait_for(std::chrono::seconds(90)), std::future_status::ready);
  const KivCertification::Outcome outcome = ending.get();

  EXPECT_EQ(outcome.failedStep, flow.failedStep);
  if (flow.failedStep) {
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain(), flow.domain);
    EXPECT_EQ(outcome.error->code(), flow.code);
    // The flow's own texts exactly; a refusal's as the networking layer words it, after the step.
    const std::string text = outcome.error->localizedDescription();
    if (flow.domain == kFlow) {
      EXPECT_EQ(text, flow.message);
    } else {
      EXPECT_TRUE(text.starts_with(flow.message) && text.size() > flow.message.size()) << text;
    }
  } else {
    EXPECT_FALSE(outcome.error) << outcome.error->localizedDescription();
  }
  EXPECT_EQ(outcome.report.slug, flow.slug);
  EXPECT_EQ(outcome.report.proofStatus(), flow.status);
  EXPECT_EQ(outcome.report.id, report.id);
  EXPECT_TRUE(outcome.report.hash) << "the report's digest is calculated before it is sent";
  ASSERT_FALSE(requests().empty());
  EXPECT_EQ(requests()[0].value("Accept-Language"), "de");
}

const auto kSent = std::tuple{"POST", "/v1/reports/", 201, sentAnswer(true)};
const auto kConfirmed = std::tuple{"POST", "/force-status/", 200, std::string(R"({"status": "confirmed"})")};
using Status = kiv::KivReport::ProofStatus;

INSTANTIATE_TEST_SUITE_P(
    Flows, Certification,
    ::testing::Values(
        Case{"confirmed", {kSent, kConfirmed}, std::nullopt, "", 0, "", "S", Status::confirmed},
        Case{"send_refused",
             {kConfirmed},
             Step::send,
             kNetworking,
             1003,
             "sending the report: ",
             std::nullopt,
             Status::undefined},
        Case{"upload_refused",
             {{"POST", "/v1/reports/", 201, sentAnswer(false)}, kConfirmed},
             Step::upload,
             kNetworking,
             1003,
             "uploading IMG_1.jpg: ",
             "S",
             Status::pending},
        Case{"check_refused",
             {kSent},
             Step::confirmation,
             kNetworking,
             1003,
             "checking the report: ",
             "S",
             Status::pending},
        Case{"content_rejected",
             {kSent, {"POST", "/force-status/", 200, R"({"status": "failed"})"}},
             Step::confirmation,
             kFlow,
             KivCertification::contentRejected,
             "the service holds content that does not match its digest: the report failed certification",
             "S",
             Status::failed},
        Case{"still_pending",
             {kSent, {"POST", "/force-status/", 200, R"({"status": "pending"})"}},
             Step::confirmation,
             kFlow,
             KivCertification::notConfirmedInTime,
             "the report is still pending after 0 s",
             "S",
             Status::pending}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
