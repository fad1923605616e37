#include "HttpsServer.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace kiv::service {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kSweepInterval = std::chrono::seconds(1);

// Descriptors kept for the database, stored files and the log, beyond the connections.
constexpr rlim_t kReservedDescriptors = 64;

std::string headTooLargeAnswer() {
  const std::string body = R"({"detail": "The request line and headers are too large."})";
  std::string answer = "HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Type: application/json\r\n";
  answer += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
  return answer + body;
}

std::size_t descriptorBudget() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= kReservedDescriptors) return 1;
  return limit.rlim_cur - kReservedDescriptors;
}

std::chrono::microseconds timeout(time_t seconds, time_t microseconds) {
  return std::chrono::seconds(seconds) + std::chrono::microseconds(microseconds);
}

/// The request a worker is serving, for the hooks httplib calls on the worker's thread while it does.
struct Exchange {
  explicit Exchange(const TlsStream& stream) : stream(stream) {}

  /// Called once the head is parsed, before any hook or handler.
  void begin(httplib::Request& request) {
    begun = true;
    bodyStart = stream.taken();
    if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding")) {
      // No length and no chunking means no body (RFC 9112, 6.3); httplib would wait for the connection to
      // close instead, and a bodiless POST such as force-status would hang.
      request.set_header("Content-Length", "0");
    }
    bodyLength = declaredBodyLength(request);
  }

  /// Whether the connection can carry another request: only when this one's body was read exactly.
  bool bodyReadToItsEnd() const { return begun && bodyLength && stream.taken() - bodyStart == *bodyLength; }

  const TlsStream& stream;
  Clock::time_point start = Clock::now();
  bool begun = false;
  std::uint64_t bodyStart = 0;
  std::optional<std::uint64_t> bodyLength;
  bool keepAlive = false;
};

thread_local Exchange* current = nullptr;

}  // namespace

std::optional<std::uint64_t> declaredBodyLength(const httplib::Request& request) {
  if (request.has_header("Transfer-Encoding")) return std::nullopt;
  if (!request.has_header("Content-Length")) return 0;
  const std::string text = request.get_header_value("Content-Length");
  std::uint64_t length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return length;
}

HttpsServer::HttpsServer(const TlsMaterial& tls, std::size_t workers, ConnectionLimits limits)
    : context_(SSL_CTX_new(TLS_server_method())),
      limits_(limits),
      workers_(workers),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  SSL_CTX* context = context_.get();
  if (!context || SSL_CTX_use_certificate_chain_file(context, tls.serverCertificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, tls.serverKey.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context) != 1) {
    throw std::runtime_error("cannot load the TLS certificate " + tls.serverCertificate.string());
  }
  if (epoll_.get() < 0 || wake_.get() < 0) throw std::runtime_error("cannot make the event loop");
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  limits_.connections = std::min(limits_.connections, descriptorBudget());
  // What the answers announce: any number of requests, each head due within the limit.
  set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
  set_keep_alive_timeout(limits_.requestHead.count());
  epoll_event wake{EPOLLIN, {.fd = wake_.get()}};
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &wake);

  set_post_routing_handler([](const httplib::Request&, httplib::Response& response) {
    current->keepAlive = current->bodyReadToItsEnd();
    if (current->keepAlive) return;
    response.headers.erase("Keep-Alive");
    response.headers.erase("Connection");
    response.set_header("Connection", "close");
  });
  set_logger([this](const httplib::Request& request, const httplib::Response& response) {
    if (logger_) logger_(request, response, Clock::now() - current->start);
  });
}

HttpsServer::~HttpsServer() { svr_sock_ = INVALID_SOCKET; }

int HttpsServer::bind(int port) {
  Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (listener.get() < 0 || ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(listener.get(), generic, length) != 0 || ::listen(listener.get(), SOMAXCONN) != 0 ||
      ::getsockname(listener.get(), generic, &length) != 0) {
    return 0;
  }
  epoll_event readable{EPOLLIN, {.fd = listener.get()}};
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener.get(), &readable) != 0) return 0;
  listener_ = std::move(listener);
  // httplib stops writing streamed answers once its own listening socket is gone; this is the one it knows.
  svr_sock_ = listener_.get();
  return ntohs(address.sin_port);
}

bool HttpsServer::run() {
  if (listener_.get() < 0) return false;
  pool_ = std::make_unique<httplib::ThreadPool>(workers_);
  std::array<epoll_event, 256> events{};
  auto nextSweep = Clock::now() + kSweepInterval;
  while (!stopping_) {
    const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()),
                                   static_cast<int>(std::chrono::milliseconds(kSweepInterval).count()));
    for (int i = 0; i < count; ++i) {
      const int descriptor = events[static_cast<std::size_t>(i)].data.fd;
      if (descriptor == listener_.get()) {
        acceptAll();
      } else if (descriptor == wake_.get()) {
        adoptReturned();
      } else if (const auto found = waiting_.find(descriptor); found != waiting_.end()) {
        const Connection connection = found->second;  // outlives its entry, which advancing may erase
        advance(connection);
      }
    }
    if (Clock::now() >= nextSweep) {
      closeExpired();
      nextSweep = Clock::now() + kSweepInterval;
    }
  }
  open_ -= waiting_.size();
  waiting_.clear();
  pool_->shutdown();  // workers finish their requests; what they hand back is closed
  return true;
}

void HttpsServer::stop() {
  stopping_ = true;
  svr_sock_ = INVALID_SOCKET;
  const std::uint64_t one = 1;
  static_cast<void>(::write(wake_.get(), &one, sizeof one));
}

void HttpsServer::acceptAll() {
  for (;;) {
    const int socket = ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE) {
        // Out of descriptors: a listener that stays readable would spin the loop, so accepting pauses
        // until the next sweep has closed expired connections.
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
        accepting_ = false;
      }
      return;
    }
    if (open_ >= limits_.connections) {
      ::close(socket);
      continue;
    }
    // TLS writes an answer in several records; with Nagle on, a small answer would wait for a delayed ACK.
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ++open_;
    auto connection = std::make_shared<TlsConnection>(socket, context_.get(), limits_);
    waiting_.emplace(socket, connection);
    advance(connection);
  }
}

void HttpsServer::advance(const Connection& connection) {
  switch (connection->advance()) {
    case TlsConnection::Progress::wantRead:
      return watch(*connection, EPOLLIN);
    case TlsConnection::Progress::wantWrite:
      return watch(*connection, EPOLLOUT);
    case TlsConnection::Progress::headComplete:
      return dispatch(connection);
    case TlsConnection::Progress::headTooLarge:
      static const std::string answer = headTooLargeAnswer();
      connection->refuse(answer);
      return advance(connection);
    case TlsConnection::Progress::closed:
      return close(connection);
  }
}

void HttpsServer::watch(TlsConnection& connection, std::uint32_t events) {
  if (connection.watched == events) return;
  epoll_event interest{events, {.fd = connection.socket()}};
  ::epoll_ctl(epoll_.get(), connection.watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, connection.socket(),
              &interest);
  connection.watched = events;
}

void HttpsServer::close(const Connection& connection) {
  waiting_.erase(connection->socket());
  --open_;
}

void HttpsServer::closeExpired() {
  const auto now = Clock::now();
  std::vector<Connection> expired;
  for (const auto& [socket, connection] : waiting_) {
    if (connection->expired(now)) expired.push_back(connection);
  }
  for (const Connection& connection : expired) close(connection);
  if (!accepting_) {
    epoll_event readable{EPOLLIN, {.fd = listener_.get()}};
    accepting_ = ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), &readable) == 0;
  }
}

void HttpsServer::dispatch(const Connection& connection) {
  if (connection->watched) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, connection->socket(), nullptr);
  connection->watched = 0;
  waiting_.erase(connection->socket());
  pool_->enqueue([this, connection] { serve(connection); });
}

void HttpsServer::adoptReturned() {
  std::uint64_t count = 0;
  static_cast<void>(::read(wake_.get(), &count, sizeof count));
  std::vector<Connection> adopted;
  {
    std::lock_guard lock(returnedMutex_);
    adopted.swap(returned_);
  }
  for (const Connection& connection : adopted) {
    waiting_.emplace(connection->socket(), connection);
    advance(connection);
  }
}

void HttpsServer::giveBack(Connection connection) {
  if (stopping_) {
    --open_;
    return;
  }
  {
    std::lock_guard lock(returnedMutex_);
    returned_.push_back(std::move(connection));
  }
  const std::uint64_t one = 1;
  static_cast<void>(::write(wake_.get(), &one, sizeof one));
}

void HttpsServer::serve(const Connection& connection) {
  TlsStream stream(*connection, timeout(read_timeout_sec_, read_timeout_usec_),
                   timeout(write_timeout_sec_, write_timeout_usec_));
  Outcome outcome = Outcome::keepAlive;
  do {
    outcome = serveRequest(*connection, stream);
  } while (outcome == Outcome::keepAlive && connection->hasRequestHead());
  switch (outcome) {
    case Outcome::keepAlive:
      connection->awaitRequest();
      return giveBack(connection);
    case Outcome::finish:
      connection->finish();
      return giveBack(connection);
    case Outcome::drop:
      --open_;
  }
}

HttpsServer::Outcome HttpsServer::serveRequest(TlsConnection& connection, TlsStream& stream) {
  Exchange exchange{stream};
  current = &exchange;
  bool clientCloses = false;
  const bool answered = process_request(stream, stopping_, clientCloses, [&](httplib::Request& request) {
    request.ssl = connection.ssl();
    exchange.begin(request);
  });
  current = nullptr;
  if (!answered) return Outcome::drop;
  return exchange.keepAlive && !clientCloses && !stopping_ ? Outcome::keepAlive : Outcome::finish;
}

}  // namespace kiv::service
