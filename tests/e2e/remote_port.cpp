#include "tests/e2e/remote_port.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

namespace e2e {

namespace {

// The master, non-blocking, and the slave's name; the peer opens the slave
// itself, in raw mode.
std::pair<int, std::string> open_pair() {
  int master = -1, slave = -1;
  char name[256] = {};
  if (openpty(&master, &slave, name, nullptr, nullptr) != 0) return {-1, ""};
  close(slave);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
  return {master, name};
}

}  // namespace

RemotePort::RemotePort() : RemotePort(open_pair()) {}

}  // namespace e2e
