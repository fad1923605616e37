#include "tools/kiv-service/RawClient.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <openssl/bio.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kiv::service::test {
namespace {

using Clock = std::chrono::steady_clock;

void setReceiveTimeout(int socket, Clock::duration left) {
  const auto micros =
      std::max<std::int64_t>(std::chrono::duration_cast<std::chrono::microseconds>(left).count(), 1000);
  const timeval timeout{static_cast<time_t>(micros / 1000000), static_cast<suseconds_t>(micros % 1000000)};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

std::size_t contentLength(std::string_view head) {
  std::string lower(head);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  const std::size_t found = lower.find("\r\ncontent-length:");
  return found == std::string::npos ? 0 : std::strtoull(lower.c_str() + found + 17, nullptr, 10);
}

}  // namespace

int connectLoopback(int port) {
  // A service that closes a connection makes the next write fail, not the test program stop.
  static const bool ignoringBrokenPipes = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
  static_cast<void>(ignoringBrokenPipes);
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (socket >= 0 && ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    return socket;
  }
  if (socket >= 0) ::close(socket);
  return -1;
}

std::string clientHello() {
  // The handshake runs into memory and stops at its first flight, which is all that is kept.
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context.get()), SSL_free);
  BIO* output = BIO_new(BIO_s_mem());
  SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), output);
  static_cast<void>(SSL_connect(ssl.get()));
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(output, &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

RawClient::RawClient(int port, const std::filesystem::path& caFile)
    : socket_(connectLoopback(port)),
      context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
      ssl_(nullptr, SSL_free) {
  if (socket_ < 0) throw std::runtime_error("cannot connect to the service");
  SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_load_verify_locations(context_.get(), caFile.c_str(), nullptr);
  ssl_.reset(SSL_new(context_.get()));
  X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), "127.0.0.1");
  SSL_set_fd(ssl_.get(), socket_);
  setReceiveTimeout(socket_, std::chrono::seconds(20));
  if (SSL_connect(ssl_.get()) != 1) throw std::runtime_error("the TLS handshake with the service failed");
}

RawClient::~RawClient() {
  ssl_.reset();
  ::close(socket_);
}

bool RawClient::send(std::string_view bytes) {
  return SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) ==
         static_cast<int>(bytes.size());
}

std::string RawClient::readAnswer(std::chrono::milliseconds bound) {
  const auto deadline = Clock::now() + bound;
  std::size_t headEnd = std::string::npos;
  while ((headEnd = received_.find("\r\n\r\n")) == std::string::npos) {
    if (!readMore(deadline)) return {};
  }
  const std::size_t end = headEnd + 4 + contentLength(std::string_view(received_).substr(0, headEnd));
  while (received_.size() < end) {
    if (!readMore(deadline)) return {};
  }
  std::string answer = received_.substr(0, end);
  received_.erase(0, end);
  return answer;
}

std::optional<std::string> RawClient::readToClose(std::chrono::milliseconds bound) {
  const auto deadline = Clock::now() + bound;
  while (readMore(deadline)) {
  }
  if (!closed_) return std::nullopt;
  return std::exchange(received_, {});
}

bool RawClient::readMore(Clock::time_point deadline) {
  if (Clock::now() >= deadline) return false;
  setReceiveTimeout(socket_, deadline - Clock::now());
  std::array<char, 16384> block{};
  errno = 0;
  const int got = SSL_read(ssl_.get(), block.data(), static_cast<int>(block.size()));
  if (got <= 0) {
    closed_ = errno != EAGAIN && errno != EWOULDBLOCK;  // otherwise the bound ran out
    return false;
  }
  received_.append(block.data(), static_cast<std::size_t>(got));
  return true;
}

}  // namespace kiv::service::test
