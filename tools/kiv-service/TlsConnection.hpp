#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <httplib.h>
#include <openssl/ssl.h>

#include "Handles.hpp"

namespace kiv::service {

/// How long and how much a client may take before its request reaches a worker.
struct ConnectionLimits {
  std::chrono::seconds handshake{10};    ///< from accept to the end of the TLS handshake
  std::chrono::seconds requestHead{10};  ///< from being ready (handshake or last answer) to a complete head
  std::chrono::seconds linger{2};        ///< after the last answer, unread input is drained this long
  std::size_t headBytes = 64 << 10;      ///< request line and headers together
  std::size_t connections = 10000;       ///< open at once; more are closed as soon as they are accepted
};

/// The offset just past the blank line that ends a request head (request line and headers) in `text`, or
/// npos while it is incomplete. Searching starts at `from`.
std::size_t requestHeadEnd(std::string_view text, std::size_t from = 0);

/**
 * One accepted TLS connection on a non-blocking socket, with the bytes read ahead of the request parser. The
 * event loop drives it with `advance`, which never blocks; a worker reads and writes it through `TlsStream`,
 * whose waits are bounded.
 *
 * @par Thread Safety
 * Used by one thread at a time: the loop while the connection waits, a worker while it is served.
 */
class TlsConnection {
 public:
  enum class Progress {
    wantRead,      ///< waiting for the client to send
    wantWrite,     ///< waiting for room to send (the handshake only)
    headComplete,  ///< a whole request head is read; a worker can take it
    headTooLarge,  ///< the head outgrew `ConnectionLimits::headBytes`
    closed,        ///< the client went away, broke the protocol, or a finished connection is drained
  };

  /// Takes ownership of `socket`; the deadline for the handshake starts now.
  TlsConnection(int socket, SSL_CTX* context, const ConnectionLimits& limits);
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  /// Continues the handshake, then reads until a request head is complete; once finished, drains input.
  Progress advance();
  /// Whether the bytes already read hold a complete request head (a pipelined request).
  bool hasRequestHead();
  /// The connection is ready for its next request: the head must be complete before a new deadline.
  void awaitRequest();
  bool expired(std::chrono::steady_clock::time_point now) const { return now >= deadline_; }
  /**
   * Ends the connection from this side (close_notify and FIN) and starts draining what the client still
   * sends, for `ConnectionLimits::linger`. Closing with unread input would reset the connection, and a reset
   * can destroy the answer before the client has read it: a refused upload is still being sent.
   */
  void finish();
  /// Sends a short answer if the socket takes it at once, then finishes.
  void refuse(std::string_view answer);

  int socket() const { return socket_.get(); }
  SSL* ssl() const { return ssl_.get(); }
  /// The epoll events the loop has registered for this connection; 0 while it is not registered.
  std::uint32_t watched = 0;

 private:
  friend class TlsStream;
  Progress pending(int result) const;
  Progress drain() const;

  Descriptor socket_;
  Handle<SSL, SSL_free> ssl_;
  const ConnectionLimits& limits_;
  std::chrono::steady_clock::time_point deadline_;
  bool handshaken_ = false;
  bool finished_ = false;
  std::string ahead_;         // read from TLS but not yet taken by the parser
  std::size_t taken_ = 0;     // how much of ahead_ the parser has taken
  std::size_t searched_ = 0;  // how much of ahead_ holds no head end
};

/**
 * httplib's view of a connection while a worker serves it: reads start with the bytes read ahead, and every
 * wait for the client is bounded by the timeouts. Counts what the parser takes, so that the server can tell
 * whether a request's body was read to its end.
 */
class TlsStream final : public httplib::Stream {
 public:
  TlsStream(TlsConnection& connection, std::chrono::microseconds readTimeout,
            std::chrono::microseconds writeTimeout);

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* data, size_t size) override;
  ssize_t write(const char* data, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return connection_.socket(); }

  /// Bytes given to the parser so far.
  std::uint64_t taken() const { return taken_; }

 private:
  /// Waits until the socket is ready for `events`, at most `timeout`.
  bool wait(short events, std::chrono::microseconds timeout) const;
  /// Turns an SSL result into a wait; false when the connection failed or the wait timed out.
  bool waitAfter(int result) const;

  TlsConnection& connection_;
  std::chrono::microseconds readTimeout_;
  std::chrono::microseconds writeTimeout_;
  std::uint64_t taken_ = 0;
};

}  // namespace kiv::service
