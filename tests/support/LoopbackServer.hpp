#pragma once

// An HTTPS server on 127.0.0.1 (port chosen by the system) for transport tests and benchmarks. Its
// certificate is signed by a throw-away certificate authority made with the openssl tool at start-up; the
// client trusts that authority's file, never an unverified connection.
//
// Time is never part of a test's outcome here: a request that carries "gate=<name>" waits until the test
// opens that gate, and "/stall" answers only when the server stops. Both end at once when the server stops,
// and so does every connection: unless asked to keep connections alive (the benchmarks do), the server
// closes each one after its answer, so that stopping never waits for an idle client.

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/TemporaryDirectory.hpp"

namespace zutest {

class LoopbackServer {
 public:
  /// Makes the certificates in a fresh folder under the temporary directory and starts serving.
  explicit LoopbackServer(bool keepConnectionsAlive = false) {
    makeCertificates();
    server_ = std::make_unique<httplib::SSLServer>((folder() / "server.pem").c_str(),
                                                   (folder() / "server.key").c_str());
    if (!server_->is_valid()) throw std::runtime_error("test server certificate not loadable");
    server_->set_keep_alive_max_count(keepConnectionsAlive ? 1'000'000 : 1);
    // Requests held at a gate each keep a worker; there are enough for every test's held requests.
    server_->new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
    // Without it, small answers written in two pieces wait for the client's delayed acknowledgement (40 ms).
    server_->set_tcp_nodelay(true);
    // The library gives a client 5 s per read or write; a client slowed by a loaded machine must not be cut.
    server_->set_read_timeout(std::chrono::seconds(60));
    server_->set_write_timeout(std::chrono::seconds(60));
    server_->set_payload_max_length(std::numeric_limits<std::size_t>::max());
    routes();
    port_ = server_->bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("test server cannot bind");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
  }
  ~LoopbackServer() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    server_->stop();
    thread_.join();
  }

  int port() const { return port_; }
  /// "https://127.0.0.1:<port>" + path; `host` may name "localhost" to reach the same server as another host.
  std::string url(const std::string& path, const std::string& host = "127.0.0.1") const {
    return "https://" + host + ":" + std::to_string(port_) + path;
  }
  std::string caFile() const { return (folder() / "ca.pem").string(); }
  /// A second authority that signed nothing this server presents.
  std::string strangerCAFile() const { return (folder() / "stranger.pem").string(); }
  const std::filesystem::path& folder() const { return directory_.path(); }
  /// Requests served so far, counted when a handler starts.
  int requestCount() const { return requests_.load(); }
  /// Lets the requests that carry "gate=<name>" go on, those waiting and those to come.
  void open(const std::string& gate) {
    std::lock_guard lock(mutex_);
    openGates_.insert(gate);
    changed_.notify_all();
  }

 private:
  static constexpr std::size_t kWorkers = 32;

  // Waits until `ready()` holds or the server stops, at most `limit`.
  template <class Ready>
  void waitUntil(Ready ready, std::chrono::milliseconds limit = std::chrono::hours(1)) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return stopping_ || ready(); });
  }
  void run(const std::string& command) const {
    const std::string line = "cd '" + folder().string() + "' && " + command + " >/dev/null 2>&1";
    if (std::system(line.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }

  void makeCertificates() const {
    const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    run("openssl req -x509 " + ec + " -keyout ca.key -out ca.pem -days 2 -subj '/CN=Zu Loopback Test CA'");
    run("openssl req -x509 " + ec +
        " -keyout stranger.key -out stranger.pem -days 2 -subj '/CN=Zu Stranger CA'");
    std::ofstream(folder() / "server.ext")
        << "subjectAltName=IP:127.0.0.1,DNS:localhost\nbasicConstraints=CA:FALSE\n"
           "extendedKeyUsage=serverAuth\n";
    run("openssl req " + ec + " -keyout server.key -out server.csr -subj '/CN=127.0.0.1'");
    run("openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 2 "
        "-extfile server.ext");
  }

  static std::string field(const std::string& text) {
    std::string escaped;
    for (char c : text) {
      if (c == '"' || c == '\\') escaped += '\\';
      escaped += c;
    }
    return "\"" + escaped + "\"";
  }

  static std::size_t sizeParameter(const httplib::Request& request, const char* name, std::size_t fallback) {
    return request.has_param(name) ? std::stoull(request.get_param_value(name)) : fallback;
  }

  void routes() {
    // Runs before a request's body is read, so that a held upload stays unread.
    server_->set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
      ++requests_;
      if (request.has_param("gate")) {
        const std::string gate = request.get_param_value("gate");
        waitUntil([&] { return openGates_.count(gate) > 0; });
      }
      return httplib::Server::HandlerResponse::Unhandled;
    });
    // The request as the server saw it, as JSON.
    auto echo = [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(
          "{\"method\":" + field(request.method) + ",\"body\":" + field(request.body) +
              ",\"authorization\":" + field(request.get_header_value("Authorization")) +
              ",\"contentType\":" + field(request.get_header_value("Content-Type")) +
              ",\"query\":" + field(request.has_param("a") ? request.get_param_value("a") : "") + "}",
          "application/json");
    };
    server_->Get("/echo", echo);
    server_->Post("/echo", echo);
    server_->Delete("/echo", echo);
    server_->Get("/json", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("{\"ok\":true}", "application/json");
    });
    server_->Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
      response.status = std::stoi(request.matches[1]);
      if (request.has_param("body"))
        response.set_content(request.get_param_value("body"), "application/json");
    });
    server_->Get("/garbage", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("<<< not json", "text/html");
    });
    server_->Get("/redirect-to-other-host", [this](const httplib::Request&, httplib::Response& response) {
      response.set_redirect(url("/echo", "localhost"));
    });
    auto redirectSameHost = [this](const httplib::Request&, httplib::Response& response) {
      response.set_redirect(url("/echo"));
    };
    server_->Get("/redirect-same-host", redirectSameHost);
    server_->Post("/redirect-same-host", redirectSameHost);
    // Answers when the server stops.
    server_->Get("/stall", [this](const httplib::Request&, httplib::Response& response) {
      waitUntil([] { return false; });
      response.set_content("{}", "application/json");
    });
    // One byte every `gap` ms, `count` bytes: slow but never idle.
    server_->Get("/drip", [](const httplib::Request& request, httplib::Response& response) {
      const auto count = sizeParameter(request, "count", 10);
      const auto gap = sizeParameter(request, "gap", 200);
      response.set_content_provider(count, "application/octet-stream",
                                    [gap](std::size_t, std::size_t, httplib::DataSink& sink) {
                                      std::this_thread::sleep_for(std::chrono::milliseconds(gap));
                                      return sink.write("0", 1);
                                    });
    });
    // Promises `size` bytes, sends `sent`, then drops the connection.
    server_->Get("/truncated", [](const httplib::Request& request, httplib::Response& response) {
      const auto sent = sizeParameter(request, "sent", 10);
      response.set_content_provider(sizeParameter(request, "size", 100000), "application/json",
                                    [sent](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                      if (offset >= sent) return false;
                                      const std::string chunk(sent, '[');
                                      return sink.write(chunk.data(), chunk.size());
                                    });
    });
    // `size` bytes of a repeating pattern, streamed.
    server_->Get("/bytes", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content_provider(sizeParameter(request, "size", 1024), "application/octet-stream",
                                    [](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                      static const std::string block = [] {
                                        std::string b(1 << 16, '\0');
                                        for (std::size_t i = 0; i < b.size(); ++i)
                                          b[i] = static_cast<char>(i % 251);
                                        return b;
                                      }();
                                      const std::size_t start = offset % 251;
                                      const std::size_t n = std::min(length, block.size() - start);
                                      return sink.write(block.data() + start, n);
                                    });
    });
    // Counts an upload's bytes without keeping them.
    auto count = [](const httplib::Request& request, httplib::Response& response,
                    const httplib::ContentReader& reader) {
      std::size_t received = 0;
      reader([&](const char*, std::size_t length) {
        received += length;
        return true;
      });
      if (request.has_param("empty")) {
        response.status = 204;
        return;
      }
      response.set_content("{\"received\":" + std::to_string(received) + ",\"disposition\":" +
                               field(request.get_header_value("Content-Disposition")) + "}",
                           "application/json");
    };
    server_->Put("/upload", count);
    server_->Post("/upload", count);
  }

  testing_support::TemporaryDirectory directory_;  // removed after the server is gone
  std::unique_ptr<httplib::SSLServer> server_;
  int port_ = 0;
  std::thread thread_;
  std::atomic<int> requests_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  std::set<std::string> openGates_;
};

}  // namespace zutest
