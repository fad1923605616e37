// Every operation against a service that misbehaves on purpose: each completion runs exactly once, with the
// error of the fault, and nothing lands outside the media and PDF folders. These tests switch faults on the
// service, so they take it for themselves (see the CMake file).
#include <gtest/gtest.h>

#include <ostream>

#include <filesystem>
#include <string>

#include "ZuNetworking/ZuError.hpp"
#include "support/ServiceUnderTest.hpp"

namespace {

using kiv::KivAPI;
using kiv::KivReport;
using kivtest::Awaited;

enum class Operation { create, patch, update, forceStatus, pdf, upload, download, newsletter };

/// What one operation's completion received.
struct Outcome {
  int calls = 0;
  bool succeeded = false;
  std::optional<zu::Error> error;
};

/// The error a fault must cause; an empty domain means the operation succeeds.
struct Expected {
  std::string domain;
  long code = 0;
  std::string text = {};  // the error's description, when it matters
  std::optional<int> status = std::nullopt;
};

struct FaultCase {
  std::string name;
  std::string route;
  std::string fault;
  Operation operation;
  Expected expected;
  // Test names show the case name, not its bytes.
  friend void PrintTo(const FaultCase& value, std::ostream* out) { *out << value.name; }
};

const std::string kZu = "com.zumbrel.networking";
const std::string kURL = "NSURLErrorDomain";
const std::string kCocoa = "NSCocoaErrorDomain";
constexpr long kConnectionLost = -1005;
const std::string kFilesDiffer = "The files in the report do not correspond to the files in local storage";

class ServiceFaults : public kivtest::ServiceTest, public ::testing::WithParamInterface<FaultCase> {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    unsent_ = KivReport("Garage door");
    unsent_.files.push_back(mediaFile("20240501_090000", "front view", 7.36e8));
    unsent_.files.push_back(mediaFile("20240501_090100", "side view", 7.36e8 + 60));
    report_ = sent(unsent_);
    for (kiv::KivFile& file : report_.files) file = uploaded(file, report_);
  }
  void TearDown() override {
    kivtest::clearFault(GetParam().route);
    ServiceTest::TearDown();
  }

  // Runs an operation to its completion, then one more request, so that a second call of the completion
  // would have come by the time the calls are counted.
  template <class Value, class Start>
  Outcome run(Start start) {
    Awaited<Value> awaited;
    start(awaited.completion());
    EXPECT_TRUE(awaited.wait());
    Awaited<KivReport> later;
    KivAPI::update(report_, later.completion());
    EXPECT_TRUE(later.wait());
    return {awaited.calls(), awaited.value() && !awaited.error(), awaited.error()};
  }

  Outcome run(Operation operation) {
    switch (operation) {
      case Operation::create:
        return run<KivReport>([&](auto done) { KivAPI::send(unsent_, "en", done); });
      case Operation::patch:
        return run<KivReport>([&](auto done) { KivAPI::send(report_, "en", done); });
      case Operation::update:
        return run<KivReport>([&](auto done) { KivAPI::update(report_, done); });
      case Operation::forceStatus:
        return run<KivReport>([&](auto done) { KivAPI::forceStatusUpdate(report_, done); });
      case Operation::pdf:
        return run<bool>([&](auto done) { KivAPI::generatePDF(report_, "en", done); });
      case Operation::upload:
        return run<kiv::KivFile>([&](auto done) { KivAPI::uploadContent(report_.files[0], report_, done); });
      case Operation::download:
        std::filesystem::remove(report_.files[0].fileURL().path());
        return run<bool>([&](auto done) { KivAPI::downloadContent(report_.files[0], done); });
      case Operation::newsletter:
        return run<bool>([&](auto done) {
          KivAPI::updateNewsletters(kiv::KivUserProperties("ann@example.org", std::nullopt, {}), "en", done);
        });
    }
    return {};
  }

  KivReport unsent_{""};
  KivReport report_{""};
};

TEST_P(ServiceFaults, CompleteOnceWithTheFaultsError) {
  const FaultCase& fault = GetParam();
  kivtest::setFault(fault.route, fault.fault);
  const Outcome outcome = run(fault.operation);
  EXPECT_EQ(outcome.calls, 1);
  const Expected& expected = fault.expected;
  if (expected.domain.empty()) {
    EXPECT_TRUE(outcome.succeeded) << (outcome.error ? outcome.error->localizedDescription() : "no value");
    return;
  }
  ASSERT_TRUE(outcome.error);
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.error->domain(), expected.domain) << outcome.error->localizedDescription();
  EXPECT_EQ(outcome.error->code(), expected.code) << outcome.error->localizedDescription();
  if (!expected.text.empty()) {
    EXPECT_EQ(outcome.error->localizedDescription(), expected.text);
  }
  if (expected.status) {
    const zu::AnyCodable* status = outcome.error->userInfo().find(zu::ZuError::statusCodeKey);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->intValue(), expected.status);
  }
  if (fault.operation == Operation::download) {
    EXPECT_FALSE(report_.files[0].hasLocalFile()) << "a failed download leaves nothing behind";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ServiceFaults,
    ::testing::Values(
        FaultCase{"StatusOnUpdate",
                  "get",
                  R"({"kind": "status", "status": 503})",
                  Operation::update,
                  {kZu, 1003, "\nInjected fault.", 503}},
        FaultCase{"StatusOnUpload",
                  "put",
                  R"({"kind": "status", "status": 500})",
                  Operation::upload,
                  {kZu, 1003, "\nInjected fault.", 500}},
        FaultCase{"StatusOnDownload",
                  "download",
                  R"({"kind": "status", "status": 404})",
                  Operation::download,
                  {kZu, 1003, "\nInjected fault.", 404}},
        FaultCase{"NonJSONOnCreate", "create", R"({"kind": "non-json"})", Operation::create, {kCocoa, 3840}},
        FaultCase{"TruncatedOnPatch", "patch", R"({"kind": "truncate"})", Operation::patch, {kCocoa, 3840}},
        FaultCase{"ScalarOnForceStatus",
                  "force-status",
                  R"({"kind": "scalar"})",
                  Operation::forceStatus,
                  {kZu, 1002, "Response received invalid payload type, expected a JSON dictionary or array"}},
        FaultCase{"ScalarOnNewsletter",
                  "newsletter",
                  R"({"kind": "scalar"})",
                  Operation::newsletter,
                  {kZu, 1002, "Response received invalid payload type, expected a JSON dictionary or array"}},
        FaultCase{"ResetOnFileUpload",
                  "file-upload",
                  R"({"kind": "reset"})",
                  Operation::upload,
                  {kURL, kConnectionLost}},
        FaultCase{"ResetOnDownload",
                  "download",
                  R"({"kind": "reset"})",
                  Operation::download,
                  {kURL, kConnectionLost}},
        FaultCase{
            "StallOnPDF", "pdf", R"({"kind": "stall", "ms": 300})", Operation::pdf, {kURL, kConnectionLost}},
        FaultCase{"DelayOnPDF", "pdf", R"({"kind": "delay", "ms": 300})", Operation::pdf, {}},
        FaultCase{"ClimbingNameOnCreate",
                  "create",
                  R"({"kind": "file-name", "text": "../../x"})",
                  Operation::create,
                  {kZu, 1002, kFilesDiffer}},
        FaultCase{"FolderNameOnPatch",
                  "patch",
                  R"({"kind": "file-name", "text": "a/b"})",
                  Operation::patch,
                  {kZu, 1002, kFilesDiffer}},
        FaultCase{"EmptyNameOnCreate",
                  "create",
                  R"({"kind": "file-name", "text": ""})",
                  Operation::create,
                  {kZu, 1002, kFilesDiffer}},
        FaultCase{"ClimbingNameOnUpdateIsIgnored",
                  "get",
                  R"({"kind": "file-name", "text": "../../x"})",
                  Operation::update,
                  {}}),
    [](const auto& info) { return info.param.name; });

// A second upload of the same file while the first is still running is refused once the service has handed
// out the same upload address again. Addresses are signed to the minute, so a minute that turns between the
// two requests gives a new address and a second upload; the attempt is then made again.
using UploadWhileRunning = kivtest::ServiceTest;

TEST_F(UploadWhileRunning, ASecondUploadOfTheSameFileIsRefused) {
  KivReport report("Cellar");
  report.files.push_back(mediaFile("20240502_100000", std::string(256 << 10, 'c'), 7.36e8));
  report = sent(report);
  const kiv::KivFile& file = report.files[0];
  bool refused = false;
  for (int attempt = 0; attempt < 3 && !refused; ++attempt) {
    // The upload's PUT waits at the service until the fault is cleared below.
    kivtest::setFault("put", R"({"kind": "delay", "ms": 600000, "times": 1})");
    Awaited<kiv::KivFile> first, second;
    Awaited<bool> started;
    KivAPI::uploadContent(
        file, report, first.completion(),
        [done = started.completion()](std::int64_t, std::int64_t) { done(true, std::nullopt); });
    ASSERT_TRUE(started.wait()) << first.errorText();
    KivAPI::uploadContent(file, report, second.completion());
    ASSERT_TRUE(second.wait());
    refused = !second.value();
    if (refused) {
      EXPECT_EQ(second.errorText(), "An upload request is already in process for this file");
    }
    kivtest::clearFault("put");
    ASSERT_TRUE(first.wait());
    EXPECT_TRUE(first.value()) << first.errorText();
    EXPECT_EQ(first.calls(), 1);
    EXPECT_EQ(second.calls(), 1);
  }
  EXPECT_TRUE(refused);
}

}  // namespace
