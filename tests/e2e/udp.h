#pragma once
// A UDP socket bound on 127.0.0.1, where the service's LoRa parts or their
// servers have theirs: one side of a datagram exchange, played by a test.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>

namespace e2e {

struct Udp {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  static sockaddr_in at(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
  }
  // fd -1 when the port is taken.
  explicit Udp(uint16_t port) {
    const sockaddr_in a = at(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) close(fd), fd = -1;
  }
  ~Udp() { close(fd); }
  Udp(const Udp&) = delete;
  Udp& operator=(const Udp&) = delete;
  // The next datagram within `ms`.
  std::optional<std::string> receive(int ms = 5000) {
    pollfd p{fd, POLLIN, 0};
    char buffer[65536];
    const ssize_t n = poll(&p, 1, ms) == 1 ? recv(fd, buffer, sizeof buffer, 0) : -1;
    return n < 0 ? std::nullopt : std::optional<std::string>(std::string(buffer, static_cast<size_t>(n)));
  }
  bool send(uint16_t port, const std::string& text) {
    const sockaddr_in a = at(port);
    return sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&a), sizeof a) ==
           static_cast<ssize_t>(text.size());
  }
};

}  // namespace e2e
