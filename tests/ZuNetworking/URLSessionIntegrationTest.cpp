#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/DispatchQueue.hpp"
#include "ZuNetworking/ZuNetworking.hpp"
#include "support/Completions.hpp"
#include "support/LoopbackServer.hpp"
#include "support/RequestRecorder.hpp"
#include "support/ScopedEnvironment.hpp"

namespace {

using zu::AnyCodable;
using zutest::CallCounter;

zutest::LoopbackServer* server = nullptr;

class ServerEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    server = new zutest::LoopbackServer;
    zu::URLSession::setAdditionalCertificateAuthorityFile(server->caFile());
    zu::ZuFileManager::setApplicationDataDirectory((server->folder() / "appdata").string());
  }
  void TearDown() override {
    delete server;
    server = nullptr;
  }
};
const auto* const environment = ::testing::AddGlobalTestEnvironment(new ServerEnvironment);

zu::URL url(const std::string& path, const std::string& host = "127.0.0.1") {
  return *zu::URL::fromString(server->url(path, host));
}

/// The outcome of one data task, and how often its completion ran.
struct Exchange {
  CallCounter calls;
  std::optional<zu::Data> data;
  std::optional<zu::HTTPURLResponse> response;
  std::optional<zu::Error> error;
  std::thread::id thread;

  zu::URLSession::DataCompletion completion() {
    return [this](auto d, auto r, auto e) {
      data = std::move(d);
      response = std::move(r);
      error = std::move(e);
      thread = std::this_thread::get_id();
      calls.called();
    };
  }
  std::string text() const { return data ? std::string(data->begin(), data->end()) : std::string(); }
  long errorCode() const { return error ? error->code() : 0; }
};

/// Waits until every earlier completion of the shared session has run, by sending one more request.
void flushSharedSession() {
  Exchange probe;
  zu::URLSession::shared()->dataTask(zu::URLRequest(url("/json")), probe.completion())->resume();
  ASSERT_TRUE(probe.calls.waitFor(1));
}

void expectExactlyOnce(Exchange& exchange) {
  ASSERT_TRUE(exchange.calls.waitFor(1)) << "no completion";
  flushSharedSession();
  EXPECT_EQ(exchange.calls.count(), 1);
}

void run(zu::URLRequest request, Exchange& exchange,
         const std::shared_ptr<zu::URLSession>& session = zu::URLSession::shared()) {
  session->dataTask(std::move(request), exchange.completion())->resume();
  expectExactlyOnce(exchange);
}

zu::URLRequest withTimeout(const zu::URL& target, double seconds) {
  return zu::URLRequest(target, zu::URLRequest::CachePolicy::useProtocolCachePolicy, seconds);
}

zu::URLRequest posting(zu::URLRequest request, std::size_t bodySize) {
  request.httpMethod = "POST";
  request.httpBody = zu::Data(bodySize, 'b');
  return request;
}

/// A loopback port that refuses connections: bound but never listening, and held so that nothing else
/// can take it meanwhile.
class RefusingPort {
 public:
  RefusingPort() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot bind a loopback port");
    }
    port_ = ntohs(address.sin_port);
  }
  ~RefusingPort() { ::close(fd_); }
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  int port() const { return port_; }

 private:
  int fd_;
  int port_ = 0;
};

std::string makeFile(const std::string& name, std::size_t size) {
  const auto path = server->folder() / name;
  std::ofstream out(path, std::ios::binary);
  std::string chunk(1 << 16, 'u');
  for (std::size_t written = 0; written < size; written += chunk.size()) {
    out.write(chunk.data(), static_cast<std::streamsize>(std::min(chunk.size(), size - written)));
  }
  return path.string();
}

TEST(URLSessionIntegration, DataTaskDeliversAnswerOnTheWorkerThreadAndSetsTheTaskResponse) {
  Exchange exchange;
  auto task = zu::URLSession::shared()->dataTask(zu::URLRequest(url("/json")), exchange.completion());
  EXPECT_FALSE(task->response());
  task->resume();
  expectExactlyOnce(exchange);
  EXPECT_FALSE(exchange.error);
  EXPECT_EQ(exchange.text(), R"({"ok":true})");
  EXPECT_EQ(exchange.response->statusCode, 200);
  EXPECT_EQ(exchange.response->allHeaderFields.value("content-type"), "application/json");
  EXPECT_EQ(task->response()->statusCode, 200);
  EXPECT_NE(exchange.thread, std::this_thread::get_id());
}

TEST(URLSessionIntegration, TransportFailuresCompleteOnceWithPlatformCodes) {
  struct Case {
    const char* name;
    zu::URLRequest request;
    long code;
  };
  const RefusingPort refusing;
  const std::vector<Case> cases{
      {"refused",
       zu::URLRequest(*zu::URL::fromString("https://127.0.0.1:" + std::to_string(refusing.port()) + "/")),
       zu::URLError::cannotConnectToHost},
      {"stalled", withTimeout(url("/stall"), 1), zu::URLError::timedOut},
      {"stalled, with a time-out under a second", withTimeout(url("/stall"), 0.25), zu::URLError::timedOut},
      {"stalled after sending its body", posting(withTimeout(url("/upload?gate=closed"), 0.5), 64 << 10),
       zu::URLError::timedOut},
      {"truncated", zu::URLRequest(url("/truncated?size=100000&sent=10")),
       zu::URLError::networkConnectionLost},
  };
  for (const auto& c : cases) {
    Exchange exchange;
    run(c.request, exchange);
    EXPECT_EQ(exchange.errorCode(), c.code) << c.name;
    EXPECT_EQ(exchange.error->domain(), "NSURLErrorDomain") << c.name;
    EXPECT_FALSE(exchange.data) << c.name;
  }
}

TEST(URLSessionIntegration, EachConnectionTrustsTheAuthorityFileAsItStandsThen) {
  // The server closes every connection after its answer, so each request below opens one of its own.
  const auto authorities = server->folder() / "authorities.pem";
  auto configuration = zu::URLSessionConfiguration::defaultConfiguration();
  configuration.additionalCertificateAuthorityFile = authorities.string();
  auto session = zu::URLSession::make(configuration);
  struct Step {
    const char* authority;
    std::string copiedFrom;  // empty: the file is left as it is
    long code;
  };
  constexpr long untrusted = zu::URLError::serverCertificateUntrusted;
  for (const Step& step :
       {Step{"missing", "", untrusted}, Step{"a stranger", server->strangerCAFile(), untrusted},
        Step{"the server's", server->caFile(), 0},
        Step{"a stranger again", server->strangerCAFile(), untrusted}}) {
    if (!step.copiedFrom.empty()) {
      std::filesystem::copy_file(step.copiedFrom, authorities,
                                 std::filesystem::copy_options::overwrite_existing);
    }
    Exchange exchange;
    run(zu::URLRequest(url("/json")), exchange, session);
    EXPECT_EQ(exchange.errorCode(), step.code) << step.authority;
  }
}

TEST(URLSessionIntegration, IdleTimeoutSparesATransferThatKeepsMoving) {
  // Opening the connection has the same 2 s, and the process's first connection also reads the system's
  // authorities, which can take longer than that on a loaded machine under the thread check: one goes first.
  flushSharedSession();
  Exchange exchange;
  // 3 s in all, never more than a quarter of a second idle: a loaded machine would have to hold the server
  // back for 1.75 s between two bytes to cut it.
  run(withTimeout(url("/drip?count=12&gap=250"), 2), exchange);
  EXPECT_FALSE(exchange.error) << exchange.error->localizedDescription();
  EXPECT_EQ(exchange.text(), std::string(12, '0'));
}

TEST(URLSessionIntegration, CancelCompletesOnceWithMinus999) {
  Exchange running;
  auto task = zu::URLSession::shared()->dataTask(zu::URLRequest(url("/stall")), running.completion());
  task->resume();
  task->cancel();
  task->cancel();
  expectExactlyOnce(running);
  EXPECT_EQ(running.errorCode(), zu::URLError::cancelled);

  Exchange suspended;
  auto never = zu::URLSession::shared()->dataTask(zu::URLRequest(url("/json")), suspended.completion());
  never->cancel();
  never->resume();
  expectExactlyOnce(suspended);
  EXPECT_EQ(suspended.errorCode(), zu::URLError::cancelled);

  // A session that goes away first still owes its tasks their completions.
  Exchange orphan;
  auto session = zu::URLSession::make(zu::URLSessionConfiguration::defaultConfiguration());
  auto left = session->dataTask(zu::URLRequest(url("/json")), orphan.completion());
  session.reset();
  left->resume();
  ASSERT_TRUE(orphan.calls.waitFor(1));
  EXPECT_EQ(orphan.errorCode(), zu::URLError::cancelled);
}

TEST(URLSessionIntegration, AuthorizationFollowsRedirectsOnlyToTheSameHost) {
  for (auto [path, expected] :
       {std::pair{"/redirect-to-other-host", ""}, std::pair{"/redirect-same-host", "secret"}}) {
    zu::URLRequest request(url(path));
    request.setValue("secret", "Authorization");
    Exchange exchange;
    run(request, exchange);
    ASSERT_FALSE(exchange.error) << path;
    auto answer = zu::JSONSerialization::jsonObject(*exchange.data);
    EXPECT_EQ(*answer->dictionaryValue()->find("authorization"), AnyCodable(expected)) << path;
  }
}

TEST(URLSessionIntegration, APostRedirectedWith302IsRepeatedAsAGetWithoutItsBodyOrContentType) {
  zu::URLRequest request(url("/redirect-same-host"));
  request.httpMethod = "POST";
  request.httpBody = zu::Data{'{', '}'};
  request.setValue("application/json", "Content-Type");
  Exchange exchange;
  run(request, exchange);
  ASSERT_FALSE(exchange.error);
  const auto answer = zu::JSONSerialization::jsonObject(*exchange.data);
  const auto& seen = *answer->dictionaryValue();
  EXPECT_EQ(*seen.find("method"), AnyCodable("GET"));
  EXPECT_EQ(*seen.find("body"), AnyCodable(""));
  EXPECT_EQ(*seen.find("contentType"), AnyCodable(""));
}

TEST(URLSessionIntegration, LargeBodiesAndManyConcurrentTasksEachCompleteOnce) {
  Exchange big;
  constexpr std::size_t size = 8 << 20;
  run(zu::URLRequest(url("/bytes?size=" + std::to_string(size))), big);
  ASSERT_EQ(big.data->size(), size);
  EXPECT_EQ((*big.data)[size - 1], static_cast<std::uint8_t>((size - 1) % 251));

  std::vector<std::unique_ptr<Exchange>> exchanges;
  for (int i = 0; i < 40; ++i) {
    exchanges.push_back(std::make_unique<Exchange>());
    const char* path = i % 4 == 0 ? "/garbage" : i % 4 == 1 ? "/status/500" : "/json";
    zu::URLSession::shared()->dataTask(zu::URLRequest(url(path)), exchanges.back()->completion())->resume();
  }
  for (auto& exchange : exchanges) ASSERT_TRUE(exchange->calls.waitFor(1));
  flushSharedSession();
  for (auto& exchange : exchanges) EXPECT_EQ(exchange->calls.count(), 1);
}

TEST(URLSessionIntegration, AnAnswerOverItsBoundIsCutOneBytePastItAndCompletes) {
  zu::URLRequest request(url("/bytes?size=" + std::to_string(8 << 20)));
  request.maximumResponseLength = 1000;
  Exchange cut;
  run(request, cut);
  EXPECT_FALSE(cut.error);
  EXPECT_EQ(cut.response->statusCode, 200);
  ASSERT_EQ(cut.data->size(), 1001u);
  EXPECT_EQ((*cut.data)[1000], static_cast<std::uint8_t>(1000 % 251));

  request.maximumResponseLength = 8 << 20;  // exactly the answer's length
  Exchange whole;
  run(request, whole);
  EXPECT_EQ(whole.data->size(), std::size_t{8} << 20);
}

/// What a ZuNetworking completion received.
struct JSONOutcome {
  CallCounter calls;
  std::optional<AnyCodable> payload;
  std::optional<zu::Error> error;
  std::thread::id thread;
  zu::ZuNetworking::JSONCompletion completion() {
    return [this](auto p, auto e) {
      payload = std::move(p);
      error = std::move(e);
      thread = std::this_thread::get_id();
      calls.called();
    };
  }
  const AnyCodable& field(const char* key) const { return *payload->dictionaryValue()->find(key); }
};

TEST(ZuNetworkingIntegration, SendsJSONQueriesAndJudgesStatusesOverTLS) {
  auto networking = std::make_shared<zu::ZuNetworking>("app-token t", "Tests.Send");
  JSONOutcome post;
  networking->sendRequest(url("/echo"), "POST", {}, AnyCodable::Dictionary{{"k", "v"}}, false,
                          post.completion());
  ASSERT_TRUE(post.calls.waitFor(1));
  EXPECT_EQ(post.field("body"), AnyCodable(R"({"k":"v"})"));
  EXPECT_EQ(post.field("authorization"), AnyCodable("app-token t"));
  EXPECT_EQ(post.field("contentType"), AnyCodable("application/json"));

  JSONOutcome query;
  networking->sendRequest(url("/echo"), "GET", {}, AnyCodable::Dictionary{{"a", "1 & 2"}}, false,
                          query.completion());
  ASSERT_TRUE(query.calls.waitFor(1));
  EXPECT_EQ(query.field("query"), AnyCodable("1 & 2"));
  EXPECT_EQ(query.field("body"), AnyCodable(""));

  JSONOutcome notFound;
  networking->sendRequest(url("/status/404?body=%7B%22detail%22%3A%22Not%20found.%22%7D"), "GET", {},
                          std::nullopt, false, notFound.completion());
  ASSERT_TRUE(notFound.calls.waitFor(1));
  EXPECT_EQ(notFound.error->zuError(), zu::ZuError::unsuccesfullHTTPResponseCode(404, "\nNot found."));

  JSONOutcome huge;  // read no further than the bound, then refused
  networking->sendRequest(url("/bytes?size=" + std::to_string(64 << 20)), "GET", {}, std::nullopt, false,
                          huge.completion());
  ASSERT_TRUE(huge.calls.waitFor(1));
  EXPECT_EQ(huge.error->zuError(), zu::ZuError::invalidResponseData(
                                       "Response larger than 4194304 bytes, the most that is read as JSON"));

  JSONOutcome garbage;
  networking->sendRequest(url("/garbage"), "GET", {}, std::nullopt, false, garbage.completion());
  ASSERT_TRUE(garbage.calls.waitFor(1));
  EXPECT_EQ(garbage.error->code(), zu::CocoaError::propertyListReadCorrupt);
}

TEST(ZuNetworkingIntegration, AHeaderWithAnEmptyValueGoesOnTheWireWithTheEmptyValue) {
  zutest::RequestRecorder recorder;
  const auto target = *zu::URL::fromString(recorder.url("/certificate"));
  const zu::ZuNetworking::Headers emptyLanguage{{"Accept-Language", ""}};
  const auto file = zu::URL::fileURLWithPath(makeFile("typeless.bin", 100'000));
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Tests.EmptyHeader");
  CallCounter calls;
  const auto counted = [&calls](auto, auto) { calls.called(); };
  // Every way a request leaves, one after another: the recorder serves one connection at a time.
  const std::vector<std::pair<std::string, std::function<void()>>> carriers{
      {"POST", [&] { networking->sendRequest(target, "POST", emptyLanguage, std::nullopt, false, counted); }},
      {"GET", [&] { networking->sendRequest(target, "GET", emptyLanguage, std::nullopt, false, counted); }},
      {"download", [&] { networking->downloadRequest(target, false, "POST", emptyLanguage, counted); }},
      {"background download",
       [&] { networking->downloadRequest(target, true, "POST", emptyLanguage, counted); }},
      {"background upload", [&] { networking->uploadRequest(target, true, "PUT", "", {}, file, counted); }},
  };
  for (std::size_t i = 0; i < carriers.size(); ++i) {
    carriers[i].second();
    ASSERT_TRUE(calls.waitFor(static_cast<int>(i + 1))) << carriers[i].first;
  }
  const auto heads = recorder.heads();
  ASSERT_EQ(heads.size(), carriers.size());
  for (std::size_t i = 0; i < carriers.size(); ++i) {
    // The upload is given no extra header but an empty content type, which travels the same way.
    const std::string line = i + 1 < carriers.size() ? "\r\nAccept-Language:\r\n" : "\r\nContent-Type:\r\n";
    EXPECT_NE(heads[i].find(line), std::string::npos) << carriers[i].first << ":\n" << heads[i];
  }
}

TEST(ZuNetworkingIntegration, ForegroundUploadStreamsTheFileAndMissingFilesFail) {
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Tests.Upload");
  const auto file = zu::URL::fileURLWithPath(makeFile("clip one.mp4", 5'000'001));
  JSONOutcome upload;
  networking->uploadRequest(url("/upload"), false, "PUT", "video/mp4", {}, file, upload.completion());
  ASSERT_TRUE(upload.calls.waitFor(1));
  ASSERT_FALSE(upload.error);
  EXPECT_EQ(upload.field("received"), AnyCodable(5'000'001));
  EXPECT_EQ(upload.field("disposition"), AnyCodable("attachment; filename=clip one.mp4"));

  JSONOutcome missing;
  networking->uploadRequest(url("/upload"), false, "PUT", "video/mp4", {},
                            zu::URL::fileURLWithPath("/nonexistent/file.mp4"), missing.completion());
  ASSERT_TRUE(missing.calls.waitFor(1));
  EXPECT_EQ(missing.error->code(), zu::URLError::fileDoesNotExist);
}

TEST(ZuNetworkingIntegration, UploadPast2GiBStreamsToTheEnd) {
  // A sparse file: sizes past 2^31 must survive every length field on the way.
  constexpr std::uintmax_t size = (std::uintmax_t{2} << 30) + 1;
  const auto path = server->folder() / "huge.bin";
  std::ofstream(path, std::ios::binary).close();
  std::filesystem::resize_file(path, size);
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Tests.HugeUpload");
  JSONOutcome upload;
  networking->uploadRequest(url("/upload"), true, "PUT", "video/mp4", {},
                            zu::URL::fileURLWithPath(path.string()), upload.completion());
  ASSERT_TRUE(upload.calls.waitFor(1, std::chrono::seconds(600)));
  std::filesystem::remove(path);
  ASSERT_FALSE(upload.error) << upload.error->localizedDescription();
  EXPECT_EQ(upload.field("received").intValue(), static_cast<std::int64_t>(size));
}

TEST(ZuNetworkingIntegration, TransfersReportProgressOnTheSessionThreadEndingWithTheTotal) {
  constexpr std::int64_t size = 3'000'000;
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Tests.Progress");
  const auto file = zu::URL::fileURLWithPath(makeFile("progress.bin", size));
  for (bool upload : {true, false}) {
    for (bool inBackground : {false, true}) {
      struct Report {
        std::int64_t done;
        std::int64_t expected;
        std::thread::id thread;
      };
      std::vector<Report> reports;  // written on the session's thread, read once the completion has run
      const auto progress = [&reports](std::int64_t done, std::int64_t expected) {
        reports.push_back({done, expected, std::this_thread::get_id()});
      };
      CallCounter calls;
      if (upload) {
        networking->uploadRequest(
            url("/upload"), inBackground, "PUT", "", {}, file, [&calls](auto, auto) { calls.called(); },
            progress);
      } else {
        networking->downloadRequest(
            url("/bytes?size=" + std::to_string(size)), inBackground, "GET", {},
            [&calls](auto, auto) { calls.called(); }, progress);
      }
      ASSERT_TRUE(calls.waitFor(1));
      ASSERT_FALSE(reports.empty());
      for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_NE(reports[i].thread, std::this_thread::get_id());
        if (i > 0) {
          EXPECT_GE(reports[i].done, reports[i - 1].done);
        }
      }
      EXPECT_EQ(reports.back().done, size) << "upload " << upload << ", background " << inBackground;
      EXPECT_EQ(reports.back().expected, size);
    }
  }
}

/// Waits until every earlier completion of the session that `inBackground` picks has returned and its
/// transfer is gone, by downloading one more byte through it: one worker runs a session's transfers in turn.
void flushDownloads(zu::ZuNetworking& networking, bool inBackground) {
  CallCounter probe;
  networking.downloadRequest(url("/bytes?size=1"), inBackground, "GET", {},
                             [&](auto, auto) { probe.called(); });
  ASSERT_TRUE(probe.waitFor(1));
}

TEST(ZuNetworkingIntegration, DownloadFileIsPrivateAndRemovedAfterTheCompletion) {
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Tests.Download");
  for (bool inBackground : {false, true}) {
    CallCounter calls;
    std::string path;
    std::uintmax_t size = 0;
    unsigned mode = 0;
    const std::string gate = inBackground ? "background-download" : "foreground-download";
    const auto target = url("/bytes?size=3000000&gate=" + gate);
    networking->downloadRequest(target, inBackground, "GET", {}, [&](auto location, auto error) {
      EXPECT_FALSE(error);
      path = location->path();
      size = std::filesystem::file_size(path);
      struct stat info {};
      ::stat(path.c_str(), &info);
      mode = info.st_mode & 0777;
      calls.called();
    });
    EXPECT_EQ(networking->isTaskPending(target), inBackground);
    server->open(gate);
    ASSERT_TRUE(calls.waitFor(1));
    EXPECT_EQ(size, 3'000'000u);
    EXPECT_EQ(mode, 0600u);
    EXPECT_FALSE(networking->isTaskPending(target));
    flushDownloads(*networking, inBackground);
    EXPECT_FALSE(std::filesystem::exists(path));
  }

  CallCounter failed;
  std::optional<zu::Error> error;
  networking->downloadRequest(url("/status/410?body=%7B%22detail%22%3A%22Gone.%22%7D"), true, "GET", {},
                              [&](auto, auto e) {
                                error = e;
                                failed.called();
                              });
  ASSERT_TRUE(failed.waitFor(1));
  EXPECT_EQ(error->zuError(), zu::ZuError::unsuccesfullHTTPResponseCode(410, "\nGone."));
}

TEST(ZuNetworkingIntegration, ADownloadWithNoTemporaryFolderFailsOnceWithoutAFile) {
  std::optional<zu::URL> location;
  std::optional<zu::Error> error;
  CallCounter calls;
  std::shared_ptr<zu::URLSessionTask> task;
  {
    // The folder is looked up when the task is made, while the session's worker waits for work.
    const testing_support::ScopedEnvironment nowhere("TMPDIR", (server->folder() / "missing").string());
    task = zu::URLSession::shared()->downloadTask(zu::URLRequest(url("/bytes?size=10")),
                                                  [&](auto l, auto, auto e) {
                                                    location = std::move(l);
                                                    error = std::move(e);
                                                    calls.called();
                                                  });
  }
  task->resume();
  ASSERT_TRUE(calls.waitFor(1));
  flushSharedSession();
  EXPECT_EQ(calls.count(), 1);
  EXPECT_FALSE(location);
  EXPECT_EQ(error->code(), zu::URLError::cannotWriteToFile);
}

TEST(ZuNetworkingIntegration, BackgroundUploadsCompleteOnceOnTheSessionThread) {
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Tests.BackgroundUpload");
  const auto file = zu::URL::fileURLWithPath(makeFile("photo.jpg", 200'000));
  std::vector<std::unique_ptr<JSONOutcome>> outcomes;
  for (int i = 0; i < 20; ++i) {
    outcomes.push_back(std::make_unique<JSONOutcome>());
    const auto target = url(i % 2 ? "/upload" : "/upload?empty=1");
    networking->uploadRequest(target, true, "PUT", "image/jpeg", {}, file, outcomes.back()->completion());
  }
  for (auto& outcome : outcomes) ASSERT_TRUE(outcome->calls.waitFor(1));
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    EXPECT_FALSE(outcomes[i]->error) << outcomes[i]->error->localizedDescription() << " "
                                     << zu::AnyCodable(outcomes[i]->error->userInfo()).description();
    if (i % 2) {
      EXPECT_EQ(outcomes[i]->field("received"), AnyCodable(200'000));
    }
    EXPECT_EQ(outcomes[i]->thread, outcomes[0]->thread);
    EXPECT_EQ(outcomes[i]->calls.count(), 1);
  }
}

/// Records a background session's delegate events in order.
class RecordingDelegate : public zu::URLSessionDelegate {
 public:
  void didFinishDownloadingTo(zu::URLSession&, zu::URLSessionTask&, const zu::URL& location) override {
    record("downloaded " + std::to_string(std::filesystem::file_size(location.path())));
  }
  void didCompleteWithError(zu::URLSession&, zu::URLSessionTask& task,
                            const std::optional<zu::Error>& error) override {
    record(task.originalRequest().httpMethod + " completed " +
           (error ? std::to_string(error->code()) : "ok"));
  }
  void urlSessionDidFinishEvents(zu::URLSession&) override {
    record("finished events");
    finished.called();
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex);
    return events_;
  }
  CallCounter finished;

 private:
  void record(std::string event) {
    std::lock_guard lock(mutex);
    events_.push_back(std::move(event));
  }
  std::mutex mutex;
  std::vector<std::string> events_;
};

/// The journal entries of every background session under the application data folder.
int journalEntries(const std::string& appData) {
  int count = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(appData + "/URLSessions", error)) {
    count += entry.path().extension() == ".json";
  }
  return count;
}

TEST(URLSessionIntegration, ALaterProcessResumesJournalledTransfersAndDeliversTheirEvents) {
  const std::string identifier = "Tests.Journal/one";
  const std::string appData = zu::ZuFileManager::applicationDataDirectory();
  const std::string upload = makeFile("journalled.bin", 123'456);
  // Held at a gate until the child has gone, so that they cannot finish (and leave the journal) in the child.
  const std::string downloadURL = server->url("/bytes?size=54321&gate=journal");
  const std::string uploadURL = server->url("/upload?gate=journal");
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl(ZU_JOURNAL_CHILD, ZU_JOURNAL_CHILD, appData.c_str(), server->caFile().c_str(), identifier.c_str(),
            downloadURL.c_str(), uploadURL.c_str(), upload.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  server->open("journal");

  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = zu::URLSession::make(zu::URLSessionConfiguration::background(identifier), delegate);
  ASSERT_TRUE(delegate->finished.waitFor(1));
  auto events = delegate->events();
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events.back(), "finished events");
  std::sort(events.begin(), events.end() - 1);
  EXPECT_EQ(events, (std::vector<std::string>{"GET completed ok", "PUT completed ok", "downloaded 54321",
                                              "finished events"}));

  // Delivered events leave the journal (entries go before the events are reported finished): a third
  // session has nothing to resume, and its worker has delivered nothing by the time it is joined.
  EXPECT_EQ(journalEntries(appData), 0);
  auto again = std::make_shared<RecordingDelegate>();
  auto third = zu::URLSession::make(zu::URLSessionConfiguration::background(identifier), again);
  third.reset();
  EXPECT_EQ(again->finished.count(), 0);
  EXPECT_TRUE(again->events().empty());
}

}  // namespace
