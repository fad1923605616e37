#pragma once

// A plain HTTP listener on 127.0.0.1 (port chosen by the system) that keeps the head of every request, byte
// for byte, and answers each with an empty JSON object. It shows what a parsing server hides: cpp-httplib,
// under the loopback HTTPS server, leaves out a header whose value is empty.
//
// One connection at a time, each closed after its answer. Reads have a bound that only a hang reaches, and
// the destructor ends the listener at once.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace zutest {

class RequestRecorder {
 public:
  RequestRecorder() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe2(stop_.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("cannot listen on loopback");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~RequestRecorder() {
    ::close(stop_[1]);
    thread_.join();
    ::close(stop_[0]);
    ::close(listener_);
  }
  RequestRecorder(const RequestRecorder&) = delete;
  RequestRecorder& operator=(const RequestRecorder&) = delete;

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  /// The heads received so far (request line and header lines, up to the blank line), in order of arrival.
  std::vector<std::string> heads() {
    std::lock_guard lock(mutex_);
    return heads_;
  }

 private:
  void serve() {
    while (true) {
      std::array<pollfd, 2> waiting{pollfd{listener_, POLLIN, 0}, pollfd{stop_[0], POLLIN, 0}};
      if (::poll(waiting.data(), waiting.size(), -1) < 0 || waiting[1].revents != 0) return;
      const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      const timeval bound{60, 0};
      ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
      answer(connection);
      ::close(connection);
    }
  }

  // Reads the head and the body its Content-Length announces, then answers.
  void answer(int connection) {
    std::string received;
    std::size_t headEnd = std::string::npos;
    std::size_t total = 0;
    std::array<char, 1 << 16> block{};
    while (headEnd == std::string::npos || received.size() < total) {
      const ssize_t got = ::read(connection, block.data(), block.size());
      if (got <= 0) return;
      received.append(block.data(), static_cast<std::size_t>(got));
      if (headEnd == std::string::npos) {
        headEnd = received.find("\r\n\r\n");
        if (headEnd != std::string::npos)
          total = headEnd + 4 + contentLength(std::string_view(received).substr(0, headEnd));
      }
    }
    {
      std::lock_guard lock(mutex_);
      heads_.push_back(received.substr(0, headEnd + 2));
    }
    const std::string_view reply =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\nConnection: "
        "close\r\n\r\n{}";
    [[maybe_unused]] const ssize_t sent = ::write(connection, reply.data(), reply.size());
  }

  static std::size_t contentLength(std::string_view head) {
    constexpr std::string_view kName = "\r\nContent-Length: ";
    const auto at = head.find(kName);
    return at == std::string_view::npos ? 0 : std::stoull(std::string(head.substr(at + kName.size())));
  }

  int listener_ = -1;
  std::array<int, 2> stop_{-1, -1};
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> heads_;
};

}  // namespace zutest
