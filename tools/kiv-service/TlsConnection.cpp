#include "TlsConnection.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <netdb.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

namespace kiv::service {
namespace {

using Clock = std::chrono::steady_clock;

int sslLength(std::size_t size) { return static_cast<int>(std::min<std::size_t>(size, INT_MAX)); }

void numericAddress(const sockaddr_storage& address, socklen_t length, std::string& ip, int& port) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> service{};
  if (::getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host.data(), host.size(),
                    service.data(), service.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return;
  }
  ip = host.data();
  port = std::atoi(service.data());
}

}  // namespace

std::size_t requestHeadEnd(std::string_view text, std::size_t from) {
  for (std::size_t line = text.find('\n', from); line != std::string_view::npos;
       line = text.find('\n', line + 1)) {
    const std::string_view rest = text.substr(line + 1);
    if (rest.starts_with('\n')) return line + 2;
    if (rest.starts_with("\r\n")) return line + 3;
  }
  return std::string_view::npos;
}

TlsConnection::TlsConnection(int socket, SSL_CTX* context, const ConnectionLimits& limits)
    : socket_(socket), ssl_(SSL_new(context)), limits_(limits), deadline_(Clock::now() + limits.handshake) {
  if (ssl_) SSL_set_fd(ssl_.get(), socket);
}

TlsConnection::~TlsConnection() {
  // A close_notify if the socket takes it; the peer learns of the close either way.
  if (handshaken_ && !finished_) static_cast<void>(SSL_shutdown(ssl_.get()));
  ERR_clear_error();
}

TlsConnection::Progress TlsConnection::advance() {
  if (!ssl_) return Progress::closed;
  if (finished_) return drain();
  ERR_clear_error();
  if (!handshaken_) {
    const int result = SSL_accept(ssl_.get());
    if (result != 1) return pending(result);
    handshaken_ = true;
    awaitRequest();
  }
  // What the parser took is dropped before reading more.
  ahead_.erase(0, taken_);
  searched_ -= std::min(searched_, taken_);
  taken_ = 0;
  while (!hasRequestHead()) {
    if (ahead_.size() >= limits_.headBytes) return Progress::headTooLarge;
    std::array<char, 16384> block{};
    const int got = SSL_read(ssl_.get(), block.data(), sslLength(block.size()));
    if (got <= 0) return pending(got);
    ahead_.append(block.data(), static_cast<std::size_t>(got));
  }
  return Progress::headComplete;
}

bool TlsConnection::hasRequestHead() {
  // A blank line may begin in the last two bytes already searched.
  const std::size_t from = std::max(taken_, searched_ < 2 ? 0 : searched_ - 2);
  if (requestHeadEnd(ahead_, from) != std::string::npos) return true;
  searched_ = ahead_.size();
  return false;
}

void TlsConnection::awaitRequest() { deadline_ = Clock::now() + limits_.requestHead; }

void TlsConnection::finish() {
  ERR_clear_error();
  if (handshaken_) static_cast<void>(SSL_shutdown(ssl_.get()));
  ::shutdown(socket(), SHUT_WR);
  finished_ = true;
  deadline_ = Clock::now() + limits_.linger;
}

void TlsConnection::refuse(std::string_view answer) {
  ERR_clear_error();
  static_cast<void>(SSL_write(ssl_.get(), answer.data(), sslLength(answer.size())));
  finish();
}

TlsConnection::Progress TlsConnection::drain() const {
  // One block a call: a client that keeps sending gets no more of the loop's time than any other, and the
  // linger deadline ends it.
  std::array<char, 65536> discarded{};
  ssize_t got = 0;
  do {
    got = ::recv(socket(), discarded.data(), discarded.size(), 0);
  } while (got < 0 && errno == EINTR);
  if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))) return Progress::wantRead;
  return Progress::closed;
}

TlsConnection::Progress TlsConnection::pending(int result) const {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return Progress::wantRead;
    case SSL_ERROR_WANT_WRITE:
      return Progress::wantWrite;
    default:
      return Progress::closed;
  }
}

TlsStream::TlsStream(TlsConnection& connection, std::chrono::microseconds readTimeout,
                     std::chrono::microseconds writeTimeout)
    : connection_(connection), readTimeout_(readTimeout), writeTimeout_(writeTimeout) {}

bool TlsStream::is_readable() const {
  return connection_.taken_ < connection_.ahead_.size() || SSL_pending(connection_.ssl()) > 0 ||
         wait(POLLIN, readTimeout_);
}

bool TlsStream::is_writable() const { return wait(POLLOUT, writeTimeout_); }

ssize_t TlsStream::read(char* data, size_t size) {
  std::string& ahead = connection_.ahead_;
  std::size_t& aheadTaken = connection_.taken_;
  if (aheadTaken < ahead.size()) {
    const std::size_t count = std::min(size, ahead.size() - aheadTaken);
    std::copy_n(ahead.data() + aheadTaken, count, data);
    aheadTaken += count;
    taken_ += count;
    return static_cast<ssize_t>(count);
  }
  for (;;) {
    ERR_clear_error();
    const int got = SSL_read(connection_.ssl(), data, sslLength(size));
    if (got > 0) {
      taken_ += static_cast<std::uint64_t>(got);
      return got;
    }
    if (!waitAfter(got)) return -1;
  }
}

ssize_t TlsStream::write(const char* data, size_t size) {
  // Without partial writes, a write that has to wait is repeated with the same arguments, as TLS requires.
  for (;;) {
    ERR_clear_error();
    const int sent = SSL_write(connection_.ssl(), data, sslLength(size));
    if (sent > 0) return sent;
    if (!waitAfter(sent)) return -1;
  }
}

void TlsStream::get_remote_ip_and_port(std::string& ip, int& port) const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getpeername(socket(), reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    numericAddress(address, length, ip, port);
  }
}

void TlsStream::get_local_ip_and_port(std::string& ip, int& port) const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(socket(), reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    numericAddress(address, length, ip, port);
  }
}

bool TlsStream::wait(short events, std::chrono::microseconds timeout) const {
  pollfd ready{socket(), events, 0};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(timeout).count();
  int result = 0;
  do {
    result = ::poll(&ready, 1, static_cast<int>(milliseconds));
  } while (result < 0 && errno == EINTR);
  return result > 0;
}

bool TlsStream::waitAfter(int result) const {
  switch (connection_.pending(result)) {
    case TlsConnection::Progress::wantRead:
      return wait(POLLIN, readTimeout_);
    case TlsConnection::Progress::wantWrite:
      return wait(POLLOUT, writeTimeout_);
    default:
      return false;
  }
}

}  // namespace kiv::service
