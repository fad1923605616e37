#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

namespace kiv::service::test {

/// A TCP connection to 127.0.0.1:`port`; -1 when it cannot be made.
int connectLoopback(int port);

/// The first bytes a TLS client sends (its ClientHello), to replay them as slowly as a hostile client would.
std::string clientHello();

/**
 * A TLS connection to the service that sends exactly the bytes given: requests no well-behaved client
 * sends (a lying Content-Length, pipelined or smuggled requests, a head sent a byte at a time). It trusts
 * only the service's CA and checks the address in its certificate. Reads wait at most their bound.
 */
class RawClient {
 public:
  /// Connects and completes the handshake; throws std::runtime_error when either fails.
  RawClient(int port, const std::filesystem::path& caFile);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// False once the service has closed the connection.
  bool send(std::string_view bytes);
  /// One answer: its head and the body its Content-Length announces; empty when none arrives.
  std::string readAnswer(std::chrono::milliseconds bound = std::chrono::seconds(20));
  /// Everything until the service closes the connection; nothing when it is still open after `bound`.
  std::optional<std::string> readToClose(std::chrono::milliseconds bound = std::chrono::seconds(20));

 private:
  /// Reads more into `received_`; false at the end of the connection (then `closed_`) or the deadline.
  bool readMore(std::chrono::steady_clock::time_point deadline);

  int socket_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_;
  std::string received_;
  bool closed_ = false;
};

}  // namespace kiv::service::test
