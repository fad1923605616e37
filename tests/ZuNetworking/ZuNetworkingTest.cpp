#include "ZuNetworking/ZuNetworking.hpp"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"
#include "ZuFoundation/DispatchQueue.hpp"
#include "ZuLogger/ZuLogger.hpp"
#include "support/FakeURLSession.hpp"

namespace {

using zu::AnyCodable;
using zu::ZuError;
using zutest::Answer;
using zutest::FakeURLSession;

const zu::URL kURL = *zu::URL::fromString("https://service.test/v1/reports/?x=2");

zu::Data bytes(std::string_view text) { return zu::Data(text.begin(), text.end()); }

Answer status(int code, std::optional<std::string_view> body = std::nullopt) {
  return {body ? std::optional(bytes(*body)) : std::nullopt,
          zu::HTTPURLResponse{kURL, code, {}},
          std::nullopt,
          {}};
}

/// What one completion received, and how many times it was called.
struct Outcome {
  int calls = 0;
  std::optional<AnyCodable> payload;
  std::optional<zu::Error> error;
  zu::ZuNetworking::JSONCompletion completion() {
    return [this](std::optional<AnyCodable> p, std::optional<zu::Error> e) {
      ++calls;
      payload = std::move(p);
      error = std::move(e);
    };
  }
  std::optional<ZuError> zuError() const { return error ? error->zuError() : std::nullopt; }
};

class ZuNetworkingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    use([this](const zu::URLRequest&) { return next; });
  }

  void use(const std::function<Answer(const zu::URLRequest&)>& answer) {
    networking->set_URLSessionType(
        {[this, answer] { return shared = std::make_shared<FakeURLSession>(answer); },
         [this, answer](const zu::URLSessionConfiguration& configuration,
                        const std::weak_ptr<zu::URLSessionDelegate>& delegate) {
           backgroundConfiguration = configuration;
           return background = std::make_shared<FakeURLSession>(answer, delegate);
         }});
  }

  Outcome send(bool acceptEmpty, const std::optional<AnyCodable>& body = std::nullopt,
               const std::string& method = "POST") {
    Outcome outcome;
    networking->sendRequest(kURL, method, {}, body, acceptEmpty, outcome.completion());
    return outcome;
  }

  std::shared_ptr<zu::ZuNetworking> networking =
      std::make_shared<zu::ZuNetworking>("abc", "Tests.Background");
  Answer next = status(200, "{}");
  std::shared_ptr<FakeURLSession> shared;
  std::shared_ptr<FakeURLSession> background;
  std::optional<zu::URLSessionConfiguration> backgroundConfiguration;
};

// The codes callers match are the platform's numbers, which errors kept or logged elsewhere carry.
static_assert(zu::URLError::cancelled == -999 && zu::URLError::timedOut == -1001 &&
              zu::URLError::cannotFindHost == -1003 && zu::URLError::cannotConnectToHost == -1004 &&
              zu::URLError::networkConnectionLost == -1005 && zu::URLError::fileDoesNotExist == -1100 &&
              zu::URLError::serverCertificateUntrusted == -1202 && zu::URLError::cannotWriteToFile == -3003);

TEST_F(ZuNetworkingTest, GetAndDeleteTurnAStringMapBodyIntoQueryItemsAfterExistingOnes) {
  for (std::string method : {"GET", "DELETE"}) {
    auto request =
        networking->_request(kURL, method, AnyCodable::Dictionary{{"a", "1"}}, "application/json", {});
    ASSERT_TRUE(request);
    EXPECT_EQ(request->url.queryItems(), (std::vector<zu::URL::QueryItem>{{"x", "2"}, {"a", "1"}}));
    EXPECT_FALSE(request->httpBody);
    EXPECT_EQ(request->httpMethod, method);
  }
  // Method names are case-sensitive: "get" sends the body as JSON.
  auto lower = networking->_request(kURL, "get", AnyCodable::Dictionary{{"a", "1"}}, "application/json", {});
  EXPECT_EQ(lower->url, kURL);
  EXPECT_EQ(lower->httpBody, bytes(R"({"a":"1"})"));
  // A map with a non-text value is no parameter list.
  auto mixed = networking->_request(kURL, "GET", AnyCodable::Dictionary{{"a", 1}}, "application/json", {});
  EXPECT_EQ(mixed->url, kURL);
  EXPECT_FALSE(mixed->httpBody);
}

TEST_F(ZuNetworkingTest, RequestCarriesTokenContentTypeAddedHeadersAndIdleTimeout) {
  auto request = networking->_request(kURL, "POST", AnyCodable::Array{1, "b"}, "application/json",
                                      {{"Content-Type", "text/plain"}, {"Accept-Language", "en"}});
  ASSERT_TRUE(request);
  EXPECT_EQ(request->value("Authorization"), "abc");
  EXPECT_EQ(request->value("content-type"), "application/json,text/plain");
  EXPECT_EQ(request->value("Accept-Language"), "en");
  EXPECT_EQ(request->timeoutInterval, 60.0);
  EXPECT_EQ(request->cachePolicy, zu::URLRequest::CachePolicy::useProtocolCachePolicy);
  EXPECT_EQ(request->httpBody, bytes(R"([1,"b"])"));

  for (const auto& token : {std::optional<std::string>(""), std::optional<std::string>()}) {
    zu::ZuNetworking anonymous(token, "id");
    EXPECT_FALSE(
        anonymous._request(kURL, "GET", std::nullopt, "application/json", {})->value("Authorization"));
  }
}

TEST_F(ZuNetworkingTest, UnwritableBodyFailsAtOnceWithInvalidPayloadAndSendsNothing) {
  Outcome outcome;
  auto task = networking->sendRequest(kURL, "POST", {}, AnyCodable::opaque(3), false, outcome.completion());
  EXPECT_EQ(task, nullptr);
  ASSERT_EQ(outcome.calls, 1);
  ASSERT_TRUE(outcome.zuError());
  EXPECT_EQ(outcome.error->code(), 1004);
  EXPECT_TRUE(outcome.error->localizedDescription().starts_with("Invalid JSON payload for Request: "));
  EXPECT_TRUE(shared == nullptr || shared->requests.empty());
}

TEST_F(ZuNetworkingTest, StatusOutside200To299IsUnsuccessfulWithTheStatusInUserInfo) {
  for (int code : {199, 300, 404, 500}) {
    next = status(code);
    auto outcome = send(true);
    ASSERT_EQ(outcome.calls, 1);
    ASSERT_TRUE(outcome.zuError()) << code;
    EXPECT_EQ(outcome.error->code(), 1003);
    EXPECT_EQ(outcome.error->domain(), "com.zumbrel.networking");
    EXPECT_EQ(*outcome.error->userInfo().find("ZuNetworking.ErrorUserInfo.StatusCode"), AnyCodable(code));
    EXPECT_EQ(outcome.zuError()->statusCode(), code);
  }
  next = status(500);
  EXPECT_EQ(send(false).error->localizedDescription(), "internal server error");
  next = status(404, R"({"detail": "Not found.", "code": 7, "hint": "x"})");
  EXPECT_EQ(send(false).error->localizedDescription(), "\nNot found.\nx");
  next = status(400, R"(["bad", 1])");
  EXPECT_EQ(send(false).error->localizedDescription(), R"(["bad", 1])");
  next = status(299, R"({"ok": true})");
  auto ok = send(false);
  EXPECT_FALSE(ok.error);
  EXPECT_EQ(ok.payload, AnyCodable(AnyCodable::Dictionary{{"ok", true}}));
}

TEST_F(ZuNetworkingTest, EmptyAnswersFailUnlessAccepted) {
  next = status(204);
  auto strict = send(false);
  ASSERT_TRUE(strict.zuError());
  EXPECT_EQ(strict.error->code(), 1001);
  EXPECT_EQ(strict.error->localizedDescription(), "The response did not contain any data as expected");

  auto lenient = send(true);
  EXPECT_EQ(lenient.calls, 1);
  EXPECT_FALSE(lenient.payload);
  EXPECT_FALSE(lenient.error);

  Outcome allowed;
  networking->sendRequestAllowEmptyResponse(kURL, "DELETE", {}, std::nullopt, allowed.completion());
  EXPECT_EQ(allowed.calls, 1);
  EXPECT_FALSE(allowed.error);
}

TEST_F(ZuNetworkingTest, ScalarAndNonJSONBodiesAreRejectedDifferently) {
  next = status(200, "true");
  auto scalar = send(true);
  ASSERT_TRUE(scalar.zuError());
  EXPECT_EQ(scalar.error->code(), 1002);
  EXPECT_EQ(scalar.error->localizedDescription(),
            "Response received invalid payload type, expected a JSON dictionary or array");

  next = status(200, "<html>");
  auto garbage = send(true);
  EXPECT_EQ(garbage.error->domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(garbage.error->code(), zu::CocoaError::propertyListReadCorrupt);
}

TEST_F(ZuNetworkingTest, AnswersOverTheBoundAreRefusedUnreadAndTheBoundTravelsWithTheRequest) {
  constexpr std::size_t bound = zu::ZuNetworking::maximumJSONResponseLength;
  EXPECT_EQ(networking->_request(kURL, "GET", std::nullopt, "application/json", {})->maximumResponseLength,
            bound);
  std::string atBound = "[\"" + std::string(bound - 4, 'x') + "\"]";
  ASSERT_EQ(atBound.size(), bound);
  next = status(200, atBound);
  EXPECT_TRUE(send(false).payload);

  atBound.insert(1, " ");  // one byte past the bound, still JSON
  next = status(200, atBound);
  const auto over = send(false);
  EXPECT_EQ(over.calls, 1);
  EXPECT_EQ(over.zuError(), ZuError::invalidResponseData(
                                "Response larger than 4194304 bytes, the most that is read as JSON"));
}

TEST_F(ZuNetworkingTest, TransportErrorsPassUnchanged) {
  const zu::Error lost(std::string(zu::Error::urlDomain), zu::URLError::networkConnectionLost);
  next = {std::nullopt, std::nullopt, lost, {}};
  auto outcome = send(true);
  EXPECT_EQ(outcome.error, lost);
  EXPECT_FALSE(outcome.payload);
}

TEST_F(ZuNetworkingTest, DictionaryVariantRequiresAnObjectAndNeverAcceptsEmpty) {
  auto dictionaryOutcome = [&] {
    std::pair<std::optional<AnyCodable::Dictionary>, std::optional<zu::Error>> result;
    int calls = 0;
    networking->sendRequestWithDictionaryResponse(kURL, "GET", {}, std::nullopt,
                                                  [&](auto payload, auto error) {
                                                    ++calls;
                                                    result = {std::move(payload), std::move(error)};
                                                  });
    EXPECT_EQ(calls, 1);
    return result;
  };
  next = status(200, "[1]");
  auto [array, arrayError] = dictionaryOutcome();
  EXPECT_FALSE(array);
  EXPECT_EQ(arrayError->code(), 1002);
  EXPECT_EQ(arrayError->localizedDescription(),
            "Response received invalid payload type, expected a JSON dictionary");

  next = status(204);
  EXPECT_EQ(dictionaryOutcome().second->code(), 1001);

  next = status(201, R"({"slug": "r1"})");
  auto [object, none] = dictionaryOutcome();
  EXPECT_FALSE(none);
  EXPECT_EQ(*object, (AnyCodable::Dictionary{{"slug", "r1"}}));
}

TEST_F(ZuNetworkingTest, LogsTheRequestAndAnswerBlocksWithoutTheToken) {
  std::vector<std::string> lines;
  zu::ZuLogger::setSink([&](std::string_view line) { lines.emplace_back(line); });
  zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::debug);
  next = status(404, R"({"detail": "Not found."})");
  send(false, AnyCodable::Dictionary{{"k", "v"}});
  zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::none);
  zu::ZuLogger::setSink({});

  const std::string prefix = "[Zu] (D) ZuNetworking: ";
  const std::string& url = kURL.absoluteString();
  const std::vector<std::string> expected{
      prefix + std::string(55, '>'),
      prefix + "Initiating POST request to URL: " + url,
      prefix + "Request Body: [\"k\": \"v\"]",
      prefix + std::string(55, '>') + "\n",
      prefix + std::string(57, '<'),
      prefix + "Response for POST request to URL: " + url,
      prefix + "Original Request Body: [\"k\": \"v\"]",
      prefix + "Response object: None",
      prefix + "Error Description: \nNot found.",
      prefix + std::string(57, '<') + "\n",
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(ZuNetworkingTest, ZuErrorCodesUserInfoAndDomain) {
  EXPECT_EQ(ZuError::missingRequestData().errorCode(), 1000);
  EXPECT_EQ(ZuError::emptyResponseData().errorCode(), 1001);
  EXPECT_EQ(ZuError::invalidResponseData().errorCode(), 1002);
  EXPECT_EQ(ZuError::unsuccesfullHTTPResponseCode(418).errorCode(), 1003);
  EXPECT_EQ(ZuError::invalidPayload().errorCode(), 1004);
  EXPECT_TRUE(ZuError::invalidPayload().errorUserInfo().empty());
  EXPECT_EQ(ZuError::unsuccesfullHTTPResponseCode(418).errorUserInfo(),
            (zu::Error::UserInfo{{"ZuNetworking.ErrorUserInfo.StatusCode", 418}}));
  EXPECT_EQ(ZuError::emptyResponseData("mine").errorUserInfo(),
            (zu::Error::UserInfo{{"NSLocalizedDescription", "mine"}}));

  for (const auto& error : {ZuError::unsuccesfullHTTPResponseCode(503, "down"), ZuError::emptyResponseData(),
                            ZuError::missingRequestData("m")}) {
    EXPECT_EQ(zu::Error(error).zuError(), error);
  }
  ZuError::setErrorDomain("host.domain");
  const zu::Error moved = ZuError::invalidPayload();
  EXPECT_EQ(moved.domain(), "host.domain");
  ZuError::setErrorDomain("com.zumbrel.networking");
  EXPECT_FALSE(moved.zuError());
  EXPECT_FALSE(zu::Error("NSURLErrorDomain", 1002).zuError());
}

TEST_F(ZuNetworkingTest, ForegroundTransfersUseTheSharedSession) {
  const auto file = zu::URL::fileURLWithPath("/data/Kiv/IMG 1.jpg");
  next = status(204);
  Outcome upload;
  networking->uploadRequest(kURL, false, "PUT", "image/jpeg", {{"X-A", "1"}}, file, upload.completion());
  ASSERT_EQ(upload.calls, 1);
  EXPECT_FALSE(upload.error);
  const auto& sent = shared->requests.back();
  EXPECT_EQ(sent.value("Content-Disposition"), "attachment; filename=IMG 1.jpg");
  EXPECT_EQ(sent.value("Content-Type"), "image/jpeg");
  EXPECT_EQ(sent.value("X-A"), "1");
  EXPECT_EQ(shared->uploadedFiles, std::vector<zu::URL>{file});

  next = status(404, "{}");
  next.location = zu::URL::fileURLWithPath("/tmp/x");
  std::optional<zu::Error> downloadError;
  networking->downloadRequest(kURL, false, "GET", {}, [&](auto, auto error) { downloadError = error; });
  EXPECT_EQ(downloadError->zuError(), ZuError::unsuccesfullHTTPResponseCode(404, "not found"));
}

TEST_F(ZuNetworkingTest, BackgroundTasksArePendingUntilTheirCompletionRuns) {
  const auto target = *zu::URL::fromString("https://storage.test/pdf/1");
  next = status(200);
  next.location = zu::URL::fileURLWithPath("/tmp/report.pdf");
  std::optional<zu::URL> received;
  bool pendingInsideCompletion = true;
  networking->downloadRequest(target, true, "GET", {}, [&](auto location, auto error) {
    EXPECT_FALSE(error);
    received = location;
    pendingInsideCompletion = networking->isTaskPending(target);
  });
  EXPECT_TRUE(networking->isTaskPending(target));
  EXPECT_FALSE(networking->isTaskPending(kURL));
  EXPECT_EQ(backgroundConfiguration->identifier, "Tests.Background");
  EXPECT_TRUE(backgroundConfiguration->sessionSendsLaunchEvents);
  EXPECT_TRUE(backgroundConfiguration->isDiscretionary);

  background->deliverHeld();
  EXPECT_EQ(received, zu::URL::fileURLWithPath("/tmp/report.pdf"));
  EXPECT_FALSE(pendingInsideCompletion);
  EXPECT_FALSE(networking->isTaskPending(target));
}

TEST_F(ZuNetworkingTest, BackgroundUploadGathersDataAndAcceptsEmptyAnswers) {
  const auto file = zu::URL::fileURLWithPath("/data/a.mp4");
  next = status(200, R"({"stored": 1})");
  Outcome withBody;
  networking->uploadRequest(kURL, true, "PUT", "video/mp4", {}, file, withBody.completion());
  next = status(204);
  Outcome empty;
  networking->uploadRequest(kURL, true, "PUT", "video/mp4", {}, file, empty.completion());
  EXPECT_EQ(withBody.calls + empty.calls, 0);
  background->deliverHeld();
  ASSERT_EQ(withBody.calls, 1);
  EXPECT_EQ(withBody.payload, AnyCodable(AnyCodable::Dictionary{{"stored", 1}}));
  ASSERT_EQ(empty.calls, 1);
  EXPECT_FALSE(empty.error);
}

TEST_F(ZuNetworkingTest, CallbacksForUnknownTasksAreIgnoredAndFinishingEventsReachTheMainQueue) {
  auto session = networking->createBackgroundURLSession();
  EXPECT_EQ(session, background);
  auto stranger = session->downloadTask(zu::URLRequest(kURL), {});
  networking->didReceive(*session, *stranger, bytes("x"));
  networking->didFinishDownloadingTo(*session, *stranger, zu::URL::fileURLWithPath("/tmp/y"));
  networking->didCompleteWithError(*session, *stranger, std::nullopt);

  std::promise<std::thread::id> called;
  networking->setBackgroundCompletionHandler([&] { called.set_value(std::this_thread::get_id()); });
  networking->urlSessionDidFinishEvents(*session);
  zu::DispatchQueue::main().drain();
  auto future = called.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_NE(future.get(), std::this_thread::get_id());
}

TEST(ZuNetworkingDeathTest, ResultsArrayVariantIsFatal) {
  zu::ZuNetworking networking(std::nullopt, "id");
  EXPECT_DEATH(networking.sendRequestWithResultsArrayInDictionaryResponse(kURL, "GET", {}, std::nullopt,
                                                                          "results", [](auto, auto) {}),
               "not available");
}

}  // namespace
