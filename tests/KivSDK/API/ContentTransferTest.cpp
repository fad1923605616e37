#include <gtest/gtest.h>

#include <ostream>

#include <filesystem>
#include <string>

#include "FakeService.hpp"

namespace {

using kiv::KivAPI;
using kivtest::FakeServiceTest;
using kivtest::FileOutcome;
using kivtest::SuccessOutcome;

constexpr std::string_view kNeedsSlugs =
    "Upload content is only available for Reports and Files already submitted, i.e. they both must have a "
    "`slug`";
constexpr std::string_view kBadUploadURI =
    "Response JSON dictionary is missing 'upload_uri' value or it is not a valid URL";
constexpr std::string_view kPending = "An upload request is already in process for this file";
constexpr std::string_view kBadFile =
    "Response JSON dictionary is missing 'file' value or it is not a valid URL";

const std::string kUploadTarget =
    R"({"upload_uri": "https://storage.test/put/f1", "file": "https://storage.test/f1"})";

class KivAPIContent : public FakeServiceTest {
 protected:
  void SetUp() override {
    FakeServiceTest::SetUp();
    report.slug = "S";
    file = mediaFile("IMG_1", "photo bytes");
    file.slug = "f1";
    report.files.push_back(file);
  }

  kiv::KivReport report{"Kitchen"};
  kiv::KivFile file{"IMG_1", "jpg", zu::Date()};
};

TEST_F(KivAPIContent, UploadAsksForATargetThenPutsTheContentInTheBackground) {
  answer = [](const zu::URLRequest& request) {
    return request.httpMethod == "GET" ? kivtest::json(200, kUploadTarget) : kivtest::json(201, "");
  };
  FileOutcome outcome;
  KivAPI::uploadContent(file, report, outcome.completion());
  ASSERT_EQ(requests().size(), 1u);
  const zu::URLRequest& asked = requests()[0];
  EXPECT_EQ(asked.httpMethod, "GET");
  EXPECT_TRUE(asked.url.absoluteString().ends_with("/v1/reports/S/file-upload/?type=jpg&file_slug=f1"))
      << asked.url.absoluteString();
  EXPECT_FALSE(asked.value("Accept-Language"));
  EXPECT_EQ(outcome.calls, 0) << "the upload is still running";

  auto& storage = *background.at("KivAPI_PublicInstance");
  ASSERT_EQ(storage.held.size(), 1u);
  const zu::URLRequest& put = storage.held[0].first->originalRequest();
  EXPECT_EQ(put.httpMethod, "PUT");
  EXPECT_EQ(put.url.absoluteString(), "https://storage.test/put/f1");
  EXPECT_EQ(put.value("Content-Type"), "") << "no media type is derived from the extension";
  EXPECT_EQ(storage.uploadedFiles.at(0), file.fileURL());

  deliverHeld();
  ASSERT_EQ(outcome.calls, 1);
  ASSERT_TRUE(outcome.value) << outcome.error->localizedDescription();
  kiv::KivFile expected = file;
  expected.remoteUrl = zu::URL::fromString("https://storage.test/f1");
  EXPECT_EQ(outcome.value->remoteUrl, expected.remoteUrl);
  EXPECT_EQ(outcome.value->dictionaryRepresentation(), expected.dictionaryRepresentation());
  EXPECT_EQ(outcome.value->_lastFileUploadAttemptDate, file._lastFileUploadAttemptDate);
}

TEST_F(KivAPIContent, ASecondUploadToTheSameTargetFailsWhileTheFirstRuns) {
  answer = [](const zu::URLRequest&) { return kivtest::json(200, kUploadTarget); };
  FileOutcome first, second;
  KivAPI::uploadContent(file, report, first.completion());
  KivAPI::uploadContent(file, report, second.completion());
  EXPECT_EQ(second.message(), kPending);
  EXPECT_EQ(first.calls, 0);

  answer = [](const zu::URLRequest&) {
    return kivtest::json(
        200, R"({"upload_uri": "https://storage.test/put/f1?expires=2", "file": "https://storage.test/f1"})");
  };
  FileOutcome third;
  KivAPI::uploadContent(file, report, third.completion());
  EXPECT_EQ(third.calls, 0) << "another target starts another upload";
  EXPECT_EQ(background.at("KivAPI_PublicInstance")->held.size(), 2u);
}

struct TargetCase {
  std::string name;
  std::string body;
  std::string_view message;
  // Test names show the case name, not its bytes.
  friend void PrintTo(const TargetCase& value, std::ostream* out) { *out << value.name; }
};

class UploadTargets : public KivAPIContent, public ::testing::WithParamInterface<TargetCase> {};

TEST_P(UploadTargets, AreCheckedInOrder) {
  answer = [](const zu::URLRequest& request) {
    // A running upload to "busy" makes the pending check the first to fail when the target is "busy".
    return request.httpMethod == "GET" ? kivtest::json(200, GetParam().body) : kivtest::json(201, "");
  };
  KivAPI::_publicInstance()->uploadRequest(*zu::URL::fromString("https://storage.test/busy"), true, "PUT", "",
                                           {}, file.fileURL(), [](auto, auto) {});
  FileOutcome outcome;
  KivAPI::uploadContent(file, report, outcome.completion());
  ASSERT_EQ(outcome.calls, 1);
  EXPECT_EQ(outcome.message(), GetParam().message);
  EXPECT_FALSE(outcome.value);
  EXPECT_EQ(background.at("KivAPI_PublicInstance")->held.size(), 1u) << "no upload started";
}

INSTANTIATE_TEST_SUITE_P(
    Answers, UploadTargets,
    ::testing::Values(
        TargetCase{"NeitherAddress", "{}", kBadUploadURI},
        TargetCase{"UploadURINotText", R"({"upload_uri": 3, "file": "https://storage.test/f1"})",
                   kBadUploadURI},
        TargetCase{"UploadURINoURL", R"({"upload_uri": "not a url", "file": "https://storage.test/f1"})",
                   kBadUploadURI},
        TargetCase{"PendingBeforeBadFile", R"({"upload_uri": "https://storage.test/busy"})", kPending},
        TargetCase{"FileMissing", R"({"upload_uri": "https://storage.test/put/f1"})", kBadFile},
        TargetCase{"FileNoURL", R"({"upload_uri": "https://storage.test/put/f1", "file": ""})", kBadFile}),
    [](const auto& info) { return info.param.name; });

TEST_F(KivAPIContent, PreconditionsFailAtOnceAndSendNothing) {
  const auto check = [](const kiv::KivFile& candidate, const kiv::KivReport& holder,
                        std::string_view message) {
    FileOutcome outcome;
    KivAPI::uploadContent(candidate, holder, outcome.completion());
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.message(), message);
  };
  kiv::KivReport unsent = report;
  unsent.slug.reset();
  kiv::KivFile noSlug = file;
  noSlug.slug.reset();
  kiv::KivFile noContent = file;
  noContent.name = "IMG_missing";
  check(file, unsent, kNeedsSlugs);
  check(noSlug, report, kNeedsSlugs);
  check(noContent, report, "There is no local content file for the requested file");

  SuccessOutcome noRemote, outside;
  KivAPI::downloadContent(file, noRemote.completion());
  EXPECT_EQ(noRemote.message(), "File for request is missing mandatory 'remoteURL' value");
  kiv::KivFile hostile = file;
  hostile.remoteUrl = zu::URL::fromString("https://storage.test/f1");
  hostile.name = "../x";
  KivAPI::downloadContent(hostile, outside.completion());
  EXPECT_EQ(outside.message(), "The file's name cannot be used as a local file name");
  EXPECT_EQ(noRemote.value, false);
  EXPECT_TRUE(requests().empty());
  EXPECT_TRUE(background.empty());
}

TEST_F(KivAPIContent, DownloadMovesTheContentToTheFilesPlaceAndIsPendingUntilThen) {
  const auto fetched = data.path() / "fetched";
  testing_support::writeFile(fetched, "fresh bytes");
  answer = [&](const zu::URLRequest&) {
    auto reply = kivtest::json(200, "");
    reply.location = zu::URL::fileURLWithPath(fetched.string());
    return reply;
  };
  kiv::KivFile remote = file;
  remote.remoteUrl = zu::URL::fromString("https://storage.test/f1");
  std::filesystem::remove(file.fileURL().path());

  SuccessOutcome outcome;
  KivAPI::downloadContent(remote, outcome.completion());
  EXPECT_TRUE(KivAPI::isFileDownloadTaskPending(*remote.remoteUrl));
  const zu::URLRequest& get = background.at("KivAPI_PublicInstance")->held.at(0).first->originalRequest();
  EXPECT_EQ(get.httpMethod, "GET");
  EXPECT_EQ(get.url, *remote.remoteUrl);

  deliverHeld();
  ASSERT_EQ(outcome.value, true) << outcome.error->localizedDescription();
  EXPECT_FALSE(KivAPI::isFileDownloadTaskPending(*remote.remoteUrl));
  EXPECT_EQ(testing_support::readFile(file.fileURL().path()), "fresh bytes");
  EXPECT_EQ(file.localFileLocation(), file.fileURL());
}

}  // namespace
