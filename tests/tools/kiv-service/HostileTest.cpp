#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

#include "tools/kiv-service/RawClient.hpp"
#include "tools/kiv-service/ServiceFixture.hpp"

// What a hostile client sends, replayed against the service: each case once brought it down, let one client
// hold back the others, or made it read what it should have refused.
namespace kiv::service::test {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* kTooDeep = "The request body nests deeper than 64 levels.";
constexpr const char* kTooLarge = "The request body must not be larger than 16 MiB.";
constexpr std::size_t kOverLimit = (16 << 20) + 1;

// `levels` objects, each inside the one before: {"a":{"a":{}}} is three.
std::string nestedObjects(std::size_t levels) {
  std::string text;
  for (std::size_t i = 1; i < levels; ++i) text += R"({"a":)";
  return text + "{}" + std::string(levels - 1, '}');
}

// A report body whose "meta_data" nests `levels` deep (the report object is one more level).
std::string reportWithMetadata(std::size_t levels) {
  return R"({"name": "r", "original_created_at": "2024-05-01T11:59:00Z", "provable_files": [], "meta_data": )" +
         nestedObjects(levels) + "}";
}

std::string statusLine(const std::string& answer) { return answer.substr(0, answer.find("\r\n")); }

/// A connection that a slow client sends one byte at a time: a TLS handshake (its ClientHello, never the
/// last byte) or, once the handshake is done, a request head that never ends.
class SlowConnection {
 public:
  explicit SlowConnection(int socket) : socket_(socket) {}
  explicit SlowConnection(std::unique_ptr<RawClient> client) : client_(std::move(client)) {}
  ~SlowConnection() {
    if (socket_ >= 0) ::close(socket_);
  }
  SlowConnection(const SlowConnection&) = delete;
  SlowConnection& operator=(const SlowConnection&) = delete;

  void sendNextByte() {
    static const std::string hello = clientHello();
    static const std::string head = "GET /v1/reports/ HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    static const std::string filler = "X-Slow: 1\r\n";
    if (client_) {
      const char byte = sent_ < head.size() ? head[sent_] : filler[(sent_ - head.size()) % filler.size()];
      static_cast<void>(client_->send(std::string_view(&byte, 1)));
    } else {
      static_cast<void>(::send(socket_, &hello[std::min(sent_, hello.size() - 2)], 1, MSG_NOSIGNAL));
    }
    ++sent_;
  }

 private:
  int socket_ = -1;
  std::unique_ptr<RawClient> client_;
  std::size_t sent_ = 0;
};

/// Slow connections that each send their next byte every round, from the moment they are open until the
/// trickle is destroyed, the way a slow-client attack keeps a server busy.
class Trickle {
 public:
  Trickle(const ServiceProcess& service, int handshakes, int heads) {
    for (int i = 0; i < heads; ++i) {
      add(std::make_unique<SlowConnection>(std::make_unique<RawClient>(service.port(), service.caFile())));
    }
    for (int i = 0; i < handshakes; ++i)
      add(std::make_unique<SlowConnection>(connectLoopback(service.port())));
  }

 private:
  void add(std::unique_ptr<SlowConnection> connection) {
    std::lock_guard lock(mutex_);
    connections_.push_back(std::move(connection));
  }

  void run(const std::stop_token& stop) {
    // The service's own worker read time-out is five seconds; a byte every half second beats it.
    static constexpr auto kPace = std::chrono::milliseconds(500);
    std::unique_lock lock(mutex_);
    while (!round_.wait_for(lock, stop, kPace, [] { return false; }) && !stop.stop_requested()) {
      for (const auto& connection : connections_) connection->sendNextByte();
    }
  }

  std::mutex mutex_;
  std::condition_variable_any round_;
  std::vector<std::unique_ptr<SlowConnection>> connections_;
  std::jthread thread_{[this](const std::stop_token& stop) { run(stop); }};  // last: stops and joins first
};

class HostileTest : public ServiceTest {
 protected:
  std::unique_ptr<RawClient> connect() {
    return std::make_unique<RawClient>(service().port(), service().caFile());
  }

  /// A request head for the raw client, with the token unless `token` is false.
  static std::string head(const std::string& requestLine, const std::string& headers, bool token = true) {
    return requestLine + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
           (token ? std::string("Authorization: app-token ") + kToken + "\r\n" : "") + headers + "\r\n";
  }
};

TEST_F(HostileTest, DeepJsonIsRefusedOnEveryRouteThatReadsJson) {
  const json report = createReport({{"IMG_1.jpg", "x"}});
  const std::string reportPath = "/v1/reports/" + report["slug"].get<std::string>() + "/";
  const std::string deep = nestedObjects(70000);  // once a stack overflow when written back
  struct Case {
    std::string method;
    std::string path;
    std::string body;
  };
  for (
      const Case& c : {
          Case{"POST", "/v1/reports/", reportWithMetadata(64)},
          Case{"POST", "/v1/reports/", reportWithMetadata(70000)},
          Case{"POST", "/v1/reports/", std::string(100000, '[')},
          Case{"PATCH", reportPath, reportWithMetadata(70000)},
          Case{
              "POST", "/v1/newsletter/",
              R"({"email": "a@b", "mailing_lists": [{"name": "n", "status": "subscribed", "merge_fields": )" +
                  deep + "}]}"},
          Case{"PUT", "/admin/faults/get", R"({"kind": "delay", "text": )" + deep + "}"},
      }) {
    const Reply reply = call(c.method, c.path, c.body);
    EXPECT_EQ(reply.status, 400) << c.method << " " << c.path << " " << c.body.size();
    EXPECT_EQ(reply.detail(), kTooDeep) << c.method << " " << c.path;
  }

  // The deepest metadata allowed is stored and answered back whole.
  const Reply deepest = call("POST", "/v1/reports/", reportWithMetadata(63));
  ASSERT_EQ(deepest.status, 201) << deepest.body;
  const std::string slug = deepest.json()["slug"];
  EXPECT_EQ(call("GET", "/v1/reports/" + slug + "/").json()["meta_data"], json::parse(nestedObjects(63)));
}

TEST_F(HostileTest, HeadsAndBodiesOverTheirLimitsAreRefusedUnread) {
  const auto longHead = connect();
  longHead->send(head("GET /v1/reports/", std::string(std::size_t{70} << 10, 'x') + "\r\n"));
  const std::optional<std::string> refused = longHead->readToClose();
  ASSERT_TRUE(refused);
  EXPECT_EQ(statusLine(*refused), "HTTP/1.1 431 Request Header Fields Too Large");
  EXPECT_EQ(refused->substr(refused->find("\r\n\r\n") + 4),
            R"({"detail": "The request line and headers are too large."})");

  // Only the head is sent: had the service waited for the body, no answer would come.
  for (const std::string& path : {std::string("/v1/reports/"), std::string("/admin/faults/get")}) {
    const auto client = connect();
    client->send(head(path == "/v1/reports/" ? "POST " + path : "PUT " + path,
                      "Content-Length: " + std::to_string(kOverLimit) + "\r\n"));
    const std::optional<std::string> answer = client->readToClose();
    ASSERT_TRUE(answer) << path << ": the connection is closed after the answer";
    EXPECT_EQ(statusLine(*answer), "HTTP/1.1 413 Payload Too Large") << path;
    EXPECT_NE(answer->find(kTooLarge), std::string::npos) << *answer;
  }
  // A chunked body declares no length; it is cut off where it passes the limit.
  const Reply chunked =
      call("POST", "/v1/reports/", std::string(kOverLimit, ' '), {"Transfer-Encoding: chunked"});
  EXPECT_EQ(chunked.status, 413);
  EXPECT_EQ(chunked.detail(), kTooLarge);
}

TEST_F(HostileTest, TheTokenIsCheckedBeforeABodyIsRead) {
  const std::string gibibyte = "Content-Length: 1073741824\r\n";
  for (const std::string& extra : {std::string(), std::string("Expect: 100-continue\r\n")}) {
    const auto client = connect();
    client->send(head("POST /v1/reports/", gibibyte + extra, false));
    const std::optional<std::string> answer = client->readToClose();
    ASSERT_TRUE(answer) << extra;
    EXPECT_EQ(statusLine(*answer), "HTTP/1.1 401 Unauthorized") << extra;
    EXPECT_NE(answer->find("Authentication credentials were not provided."), std::string::npos) << *answer;
  }

  // A refused body is never taken for a request of its own, whatever it holds.
  const json report = createReport({{"IMG_1.jpg", "x"}});
  const std::string get = head("GET /v1/reports/" + report["slug"].get<std::string>() + "/", "");
  const auto smuggler = connect();
  smuggler->send(
      head("POST /v1/newsletter/", "Content-Length: " + std::to_string(get.size()) + "\r\n", false) + get);
  const std::optional<std::string> answers = smuggler->readToClose();
  ASSERT_TRUE(answers);
  EXPECT_EQ(statusLine(*answers), "HTTP/1.1 401 Unauthorized");
  EXPECT_EQ(answers->find("HTTP/1.1", 1), std::string::npos) << *answers;

  // Requests sent together on one connection are each answered, in order.
  const auto pipeliner = connect();
  pipeliner->send(get + get);
  EXPECT_EQ(statusLine(pipeliner->readAnswer()), "HTTP/1.1 200 OK");
  EXPECT_EQ(statusLine(pipeliner->readAnswer()), "HTTP/1.1 200 OK");
}

TEST_F(HostileTest, SlowClientsDoNotHoldBackOthers) {
  const json report = createReport({{"IMG_1.jpg", "x"}});
  // More slow connections than the service has workers, all of them open and sending while the request runs.
  const Trickle trickle(service(), 80, 80);
  Request normal{"GET",
                 service().baseUrl() + "/v1/reports/" + report["slug"].get<std::string>() + "/",
                 {},
                 false,
                 {std::string("Authorization: app-token ") + kToken}};
  normal.timeout = std::chrono::seconds(20);
  const Reply reply = perform(normal, service().caFile());
  EXPECT_EQ(reply.error, CURLE_OK);
  EXPECT_EQ(reply.status, 200);
}

TEST_F(HostileTest, RequestsRefusedBeforeRoutingAreLoggedWithTheirDuration) {
  const std::string closing = "Connection: close\r\n";
  for (const std::string& request :
       {std::string("NONSENSE\r\n\r\n"), head("OPTIONS /", closing),
        head("POST /v1/reports/", closing + "Content-Length: 99999999999\r\n")}) {
    const auto client = connect();
    const auto start = Clock::now();
    client->send(request);
    // The service logs a request before it closes the connection.
    const std::optional<std::string> answer = client->readToClose();
    const double bound = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    ASSERT_TRUE(answer) << request;

    const std::string log = service().log();
    const std::string lastLine = log.substr(log.rfind('\n', log.size() - 2) + 1);
    EXPECT_NE(lastLine.find(statusLine(*answer).substr(9, 3)), std::string::npos) << lastLine;
    std::smatch duration;
    ASSERT_TRUE(std::regex_search(lastLine, duration, std::regex(R"(([0-9.]+)ms\n$)"))) << lastLine;
    EXPECT_LE(std::stod(duration[1]), bound) << lastLine;
  }
}

}  // namespace
}  // namespace kiv::service::test
