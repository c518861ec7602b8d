#include "tests/e2e/remote_port.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <chrono>

namespace e2e {

namespace {

int left_ms(std::chrono::steady_clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<int64_t>(0, left.count()));
}

}  // namespace

RemotePort::RemotePort() {
  int slave = -1;
  char name[256] = {};
  if (openpty(&m_master, &slave, name, nullptr, nullptr) != 0) {
    m_master = -1;
    return;
  }
  // The peer opens the slave itself, in raw mode.
  close(slave);
  fcntl(m_master, F_SETFD, FD_CLOEXEC);
  fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
  m_path = name;
}

RemotePort::~RemotePort() {
  if (m_master >= 0) close(m_master);
}

bool RemotePort::write(const std::string& bytes, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(m_master, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (left_ms(end) == 0) return false;
    pollfd p{m_master, POLLOUT, 0};
    poll(&p, 1, std::min(left_ms(end), 100));
  }
  return true;
}

std::string RemotePort::read(size_t n, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string got;
  char chunk[4096];
  while (got.size() < n && left_ms(end) > 0) {
    pollfd p{m_master, POLLIN, 0};
    if (poll(&p, 1, std::min(left_ms(end), 100)) <= 0) continue;
    const ssize_t r = ::read(m_master, chunk, std::min(sizeof chunk, n - got.size()));
    if (r > 0) {
      got.append(chunk, static_cast<size_t>(r));
    } else if (r < 0 && errno != EAGAIN && errno != EINTR) {
      // Nobody holds the slave open yet (or any more).
      poll(nullptr, 0, 20);
    }
  }
  return got;
}

}  // namespace e2e
