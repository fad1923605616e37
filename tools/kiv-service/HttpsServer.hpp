#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include <httplib.h>
#include <openssl/ssl.h>

#include "Handles.hpp"
#include "TlsConnection.hpp"
#include "TlsMaterial.hpp"

namespace kiv::service {

/// The body length a request declares: 0 without Content-Length; nothing for a chunked body or a length
/// that is not a number.
std::optional<std::uint64_t> declaredBodyLength(const httplib::Request& request);

/**
 * HTTPS on 127.0.0.1: one event loop for every connection, httplib's request handling on a pool of workers.
 * The loop accepts, runs each TLS handshake and reads each request head (request line and headers) without
 * ever blocking; only a connection whose head is complete goes to a worker, which runs that request (body,
 * handler, answer) and hands the connection back for the next one. A slow or idle client therefore holds a
 * socket, never a worker, and cannot starve the others; clients that overrun `ConnectionLimits` are dropped.
 *
 * Routes and hooks are httplib's. A connection whose request body was not read to its end (a handler that
 * refused it unread, a chunked body) is closed after the answer, so unread bytes are never taken for a
 * request.
 *
 * @par Thread Safety
 * Routes and hooks are set before `run`; `bind` and `run` are called once, in that order, from one thread;
 * `stop` may be called from any thread.
 */
class HttpsServer : private httplib::Server {
 public:
  /// Receives every answered request with the time it took, from its head being complete to the answer.
  using Logger = std::function<void(const httplib::Request&, const httplib::Response&,
                                    std::chrono::duration<double, std::milli> elapsed)>;

  /// Throws std::runtime_error when the certificate or key cannot be loaded.
  HttpsServer(const TlsMaterial& tls, std::size_t workers, ConnectionLimits limits = {});
  ~HttpsServer() override;
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  using httplib::Server::Delete;
  using httplib::Server::Get;
  using httplib::Server::Patch;
  using httplib::Server::Post;
  using httplib::Server::Put;
  using httplib::Server::set_error_handler;
  using httplib::Server::set_expect_100_continue_handler;
  using httplib::Server::set_pre_routing_handler;
  void setLogger(Logger logger) { logger_ = std::move(logger); }

  /// Binds 127.0.0.1:`port` (0: a free port) and answers the port; 0 when it cannot be bound.
  int bind(int port);
  /// Serves until `stop`; false when the server was not bound.
  bool run();
  void stop();

 private:
  using Connection = std::shared_ptr<TlsConnection>;
  /// What becomes of a connection after a request: the next one, a close from this side, or nothing more.
  enum class Outcome { keepAlive, finish, drop };

  void acceptAll();
  void advance(const Connection& connection);
  void watch(TlsConnection& connection, std::uint32_t events);
  void close(const Connection& connection);
  void closeExpired();
  void dispatch(const Connection& connection);
  void adoptReturned();
  void giveBack(Connection connection);
  void serve(const Connection& connection);
  Outcome serveRequest(TlsConnection& connection, TlsStream& stream);

  Handle<SSL_CTX, SSL_CTX_free> context_;
  ConnectionLimits limits_;
  std::size_t workers_;
  Logger logger_;
  Descriptor listener_;
  Descriptor epoll_;
  Descriptor wake_;
  std::atomic<bool> stopping_ = false;
  std::atomic<std::size_t> open_ = 0;
  bool accepting_ = true;
  std::unordered_map<int, Connection> waiting_;  // the loop's own: handshaking or waiting for a head
  std::mutex returnedMutex_;
  std::vector<Connection> returned_;  // served and handed back by workers, for the loop to adopt
  std::unique_ptr<httplib::ThreadPool> pool_;
};

}  // namespace kiv::service
