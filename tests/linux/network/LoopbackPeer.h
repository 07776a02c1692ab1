#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "support/FirstOutcome.h"

namespace kestrune {

/// The other side of a connection: a plain blocking socket on 127.0.0.1 that gives up after ten seconds.
class LoopbackPeer {
 public:
  /// Not connected yet.
  LoopbackPeer() { open(0); }
  explicit LoopbackPeer(std::uint16_t port, int receiveBuffer = 0) {
    open(receiveBuffer);
    connectTo(port);
  }
  LoopbackPeer(LoopbackPeer&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  LoopbackPeer& operator=(LoopbackPeer&&) = delete;
  ~LoopbackPeer() {
    if (descriptor_ >= 0) close(descriptor_);
  }

  bool connectTo(std::uint16_t port) const {
    const sockaddr_in address = loopback(port);
    return connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  /// Whether bytes come, rather than an end or nothing.
  bool isServedWithin(std::chrono::milliseconds limit) const {
    pollfd readable{descriptor_, POLLIN, 0};
    char byte = 0;
    return poll(&readable, 1, static_cast<int>(limit.count())) > 0 &&
           recv(descriptor_, &byte, 1, MSG_DONTWAIT) > 0;
  }
  bool send(const std::string& text) const {
    return ::send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  void finish() const { shutdown(descriptor_, SHUT_WR); }
  void reset() {
    const linger abort{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(std::exchange(descriptor_, -1));
  }
  /// Up to `count` bytes; fewer if the other side ended first.
  std::string receive(std::size_t count) const {
    std::string text(count, '\0');
    std::size_t taken = 0;
    while (taken < count) {
      const ssize_t got = recv(descriptor_, text.data() + taken, count - taken, 0);
      if (got <= 0) break;
      taken += static_cast<std::size_t>(got);
    }
    text.resize(taken);
    return text;
  }
  /// What comes up to and with `end`; all of it if the other side ends first.
  std::string receiveTo(std::string_view end) const {
    std::string text;
    while (!text.ends_with(end)) {
      const auto next = receive(1);
      if (next.empty()) break;
      text += next;
    }
    return text;
  }

  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static std::uint16_t freePort() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("no free port");
    }
    close(descriptor);
    return ntohs(address.sin_port);
  }

 private:
  void open(int receiveBuffer) {
    descriptor_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0)
      setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    const timeval limit{10, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }

  int descriptor_ = -1;
};

}  // namespace kestrune
