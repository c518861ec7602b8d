#include "tests/support/device_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>

namespace tc_test {

static int left_ms(std::chrono::steady_clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<int64_t>(0, left.count()));
}

DeviceFile::DeviceFile(const std::string& path) {
  m_fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  termios tio{};
  if (m_fd >= 0 && tcgetattr(m_fd, &tio) == 0) {
    cfmakeraw(&tio);
    tcsetattr(m_fd, TCSANOW, &tio);
  }
}

DeviceFile::~DeviceFile() {
  if (m_fd >= 0) close(m_fd);
}

bool DeviceFile::write(const std::string& bytes, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(m_fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (left_ms(end) == 0) return false;
    pollfd p{m_fd, POLLOUT, 0};
    poll(&p, 1, std::min(left_ms(end), 100));
  }
  return true;
}

std::string DeviceFile::read(size_t n, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string got;
  char chunk[4096];
  while (got.size() < n && left_ms(end) > 0) {
    pollfd p{m_fd, POLLIN, 0};
    if (poll(&p, 1, std::min(left_ms(end), 100)) <= 0) continue;
    const ssize_t r = ::read(m_fd, chunk, std::min(sizeof chunk, n - got.size()));
    if (r > 0) {
      got.append(chunk, static_cast<size_t>(r));
    } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
      poll(nullptr, 0, 20);  // the other end is not open (yet, or any more)
    }
  }
  return got;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/tc-test-XXXXXX";
  if (mkdtemp(pattern)) m_path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
}

bool path_exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace tc_test
