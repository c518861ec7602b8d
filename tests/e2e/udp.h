#pragma once
// A UDP socket bound on 127.0.0.1, where the service's LoRa parts or their
// servers have theirs: a test holds one to see whether a port is free.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace e2e {

struct Udp {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  // fd -1 when the port is taken.
  explicit Udp(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) close(fd), fd = -1;
  }
  ~Udp() { close(fd); }
  Udp(const Udp&) = delete;
  Udp& operator=(const Udp&) = delete;
};

}  // namespace e2e
