#include "service/common.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pty.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "common/log/log.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

namespace {

constexpr int kSendBufferSize = 16384;
constexpr int kListenBacklog = 16;
constexpr size_t kReadBufferSize = 1024;
constexpr size_t kPtyNameSize = 256;
// ECHO | ECHOE | ECHOK | ECHONL: the other end of the device must not see its
// own bytes come back.
constexpr tcflag_t kEchoFlags = ECHO | ECHOE | ECHOK | ECHONL;

// Only the LoRa LAN thread reads device files through the string form.
char g_read_buffer[kReadBufferSize];

// An unparsable address is left as 0 (any address) on purpose.
sockaddr_in make_address(const std::string& ip, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_aton(ip.c_str(), &addr.sin_addr);
  return addr;
}

// Adds O_NONBLOCK.  Returns 0, or the fcntl command that failed (errno is
// kept), so that each caller logs the failure under its own name.
int add_nonblock(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return F_GETFL;
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return F_SETFL;
  return 0;
}

void set_int_option(int fd, int level, int name, int value) {
  (void)setsockopt(fd, level, name, &value, sizeof value);
}

}  // namespace

int create_tcp(const std::string& ip, uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd <= 0) {
    // Descriptor 0 counts as a failure too, and is left open.
    TC_LOG(3, "socket error: %s", strerror(errno));
    return -1;
  }
  const int failed = add_nonblock(fd);
  if (failed == F_GETFL) {
    TC_LOG(3, "fcntl F_GETFL error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  if (failed == F_SETFL) {
    TC_LOG(3, "fcntl F_SETFL error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  set_int_option(fd, SOL_SOCKET, SO_REUSEPORT, 1);
  set_int_option(fd, SOL_SOCKET, SO_SNDBUF, kSendBufferSize);
  if (port == 0) return fd;  // a client socket, bound by connect

  const sockaddr_in addr = make_address(ip, port);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
    TC_LOG(3, "bind error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  if (::listen(fd, kListenBacklog) < 0) {
    TC_LOG(3, "listen error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  return fd;
}

int connect_tcp(int32_t fd, const std::string& ip, uint16_t port) {
  const sockaddr_in addr = make_address(ip, port);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return 0;
  if (errno == EINPROGRESS) return 0;
  TC_LOG(3, "connect error: %s", strerror(errno));
  return -1;
}

int accept_tcp(int32_t listen_fd) {
  sockaddr_in peer{};
  socklen_t peer_len = sizeof peer;
  const int fd = ::accept(listen_fd, reinterpret_cast<sockaddr*>(&peer), &peer_len);
  if (fd < 0) {
    if (errno != EAGAIN) TC_LOG(3, "accept error: %s", strerror(errno));
    return -1;
  }
  const int failed = add_nonblock(fd);
  if (failed == F_GETFL) {
    TC_LOG(3, "fcntl F_GETFL error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  if (failed == F_SETFL) {
    TC_LOG(3, "fcntl F_SETFL error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  set_int_option(fd, SOL_SOCKET, SO_SNDBUF, kSendBufferSize);
  char peer_ip[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.sin_addr, peer_ip, sizeof peer_ip);
  TC_LOG(1, "accept from %s:%d, fd: %d", peer_ip, static_cast<int>(ntohs(peer.sin_port)), fd);
  return fd;
}

int send_tcp(int32_t fd, const void* buf, int32_t len) {
  // No MSG_NOSIGNAL: the process ignores SIGPIPE.
  const ssize_t n = ::send(fd, buf, static_cast<size_t>(len), 0);
  if (n < 0) TC_LOG(3, "send tcp fd: %d, error: %s", fd, strerror(errno));
  return static_cast<int>(n);
}

int recv_tcp(int32_t fd, void* buf, int32_t len) {
  const ssize_t n = ::recv(fd, buf, static_cast<size_t>(len), 0);
  if (n >= 0) return static_cast<int>(n);
  if (errno == EAGAIN) return -1;
  // Any other error, EINTR included, ends the connection like a close by the peer.
  TC_LOG(3, "recv tcp fd: %d, error: %s", fd, strerror(errno));
  return 0;
}

int create_udp(const std::string& ip, uint16_t port, int32_t blocking) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    TC_LOG(2, "create_udp, socket error: %s", strerror(errno));
    return -1;
  }
  if (blocking != 1) {
    const int failed = add_nonblock(fd);
    if (failed == F_GETFL) {
      TC_LOG(2, "create_udp, fcntl F_GETFL error: %s", strerror(errno));
      ::close(fd);
      return -1;
    }
    if (failed == F_SETFL) {
      TC_LOG(2, "create_udp, fcntl F_SETFL error: %s", strerror(errno));
      ::close(fd);
      return -1;
    }
  }
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) < 0) {
    TC_LOG(2, "create_udp, setsockopt error: %s", strerror(errno));
  }
  const sockaddr_in addr = make_address(ip, port);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
    TC_LOG(2, "create_udp, bind error: %s", strerror(errno));
    ::close(fd);
    return -1;
  }
  TC_LOG(1, "create_udp, create success fd[%d] %s:%d", fd, ip.c_str(), static_cast<int>(port));
  return fd;
}

int send_udp(int32_t fd, const void* buf, int32_t len, const std::string& ip, uint16_t port) {
  const sockaddr_in addr = make_address(ip, port);
  return static_cast<int>(
      ::sendto(fd, buf, static_cast<size_t>(len), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr));
}

int recv_udp(int32_t fd, void* buf, int32_t len) {
  sockaddr_in from{};
  socklen_t from_len = sizeof from;
  errno = 0;  // an empty datagram leaves errno alone; don't report a stale error
  const ssize_t n = ::recvfrom(fd, buf, static_cast<size_t>(len), 0, reinterpret_cast<sockaddr*>(&from), &from_len);
  if (n < 1) {
    TC_LOG(2, "recv_udp, recvfrom error fd:%d nread:%d error:%s", fd, static_cast<int>(n), strerror(errno));
    return -1;
  }
  return static_cast<int>(n);
}

int create_device_file(const std::string& link) {
  int master = -1;
  int slave = -1;
  char slave_name[kPtyNameSize] = {};
  const int ret = openpty(&master, &slave, slave_name, nullptr, nullptr);
  if (ret != 0) {
    TC_LOG(1, "create_device_file, openpty ret:%d", ret);
    return -1;
  }
  TC_LOG(1, "create_device_file, link:%s, sptyname:%s, mpty:%d, spty:%d", link.c_str(), slave_name, master, slave);
  // Only the master is kept; the device's user opens the slave through the link.
  ::close(slave);

  // Replace a link left by an earlier run; anything else at the path stays
  // and makes symlink fail.
  struct stat st {};
  if (lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) ::unlink(link.c_str());
  if (symlink(slave_name, link.c_str()) != 0) {
    TC_LOG(2, "create_device_file, symlink error: %s", strerror(errno));
    ::close(master);
    return -1;
  }

  // Echo off only, no raw mode.
  termios tio{};
  (void)tcgetattr(master, &tio);
  tio.c_lflag &= ~kEchoFlags;
  if (tcsetattr(master, TCSANOW, &tio) != 0) {
    const int err = errno;
    ::close(master);
    TC_LOG(1, "create_device_file, open error: %s", strerror(err));
    return -1;
  }

  const int failed = add_nonblock(master);
  if (failed == F_GETFL) {
    TC_LOG(2, "create_device_file, fcntl F_GETFL error: %s", strerror(errno));
    ::close(master);
    return -1;
  }
  if (failed == F_SETFL) {
    TC_LOG(2, "create_device_file, fcntl F_SETFL error: %s", strerror(errno));
    ::close(master);
    return -1;
  }
  TC_LOG(1, "create_device_file, create success fd[%d] %s", master, link.c_str());
  return master;
}

namespace {

epoll_event channel_event(int fd, bool writable = true) {
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLET;
  if (writable) ev.events |= EPOLLOUT;
  ev.data.fd = fd;
  return ev;
}

}  // namespace

int epoll_add(int32_t epfd, int32_t fd, bool writable) {
  epoll_event ev = channel_event(fd, writable);
  if (epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev) < 0) {
    TC_LOG(2, "epoll_ctl EPOLL_CTL_ADD fd: %d, error: %s", fd, strerror(errno));
    return -1;
  }
  return 0;
}

int epoll_del(int32_t epfd, int32_t fd) {
  epoll_event ev = channel_event(fd);
  if (epoll_ctl(epfd, EPOLL_CTL_DEL, fd, &ev) < 0) {
    TC_LOG(2, "epoll_ctl EPOLL_CTL_DEL fd: %d, error: %s", fd, strerror(errno));
    return -1;
  }
  return 0;
}

int epoll_mod(int32_t epfd, int32_t fd, bool writable) {
  epoll_event ev = channel_event(fd, writable);
  if (epoll_ctl(epfd, EPOLL_CTL_MOD, fd, &ev) < 0) {
    TC_LOG(2, "epoll_ctl EPOLL_CTL_MOD fd: %d, error: %s", fd, strerror(errno));
    return -1;
  }
  return 0;
}

int send_file(int32_t fd, const std::string& data) {
  const int size = static_cast<int>(data.size());
  TC_LOG(0, "send_file, fd:%d size:%d", fd, size);
  if (data.empty()) return 0;
  errno = 0;  // a short write sets no errno; don't report a stale one
  const ssize_t n = ::write(fd, data.data(), data.size());
  if (n == static_cast<ssize_t>(data.size())) return 1;
  TC_LOG(2, "send_file, write error fd:%d nwrite:%d size:%d error:%s", fd, static_cast<int>(n), size,
         strerror(errno));
  return 0;
}

int recv_file(int32_t fd, std::string& out) {
  errno = 0;  // end of file sets no errno; don't report a stale one
  const ssize_t n = ::read(fd, g_read_buffer, sizeof g_read_buffer);
  if (n > 0) {
    out.assign(g_read_buffer, static_cast<size_t>(n));
    TC_LOG(0, "recv_file, fd:%d size:%d", fd, static_cast<int>(n));
    return 1;
  }
  TC_LOG(2, "recv_file, read error fd:%d nread:%d error:%s", fd, static_cast<int>(n), strerror(errno));
  return 0;
}

int send_file(int32_t fd, const void* buf, int32_t len) {
  const ssize_t n = ::write(fd, buf, static_cast<size_t>(len));
  if (n < 0) TC_LOG(3, "write file fd: %d, error: %s", fd, strerror(errno));
  return static_cast<int>(n);
}

int recv_file(int32_t fd, void* buf, int32_t len) {
  const ssize_t n = ::read(fd, buf, static_cast<size_t>(len));
  if (n >= 0) return static_cast<int>(n);
  if (errno == EAGAIN) return -1;
  TC_LOG(3, "read file fd: %d, error: %s", fd, strerror(errno));
  return 0;
}

int recv_file(int32_t fd, const iovec* iov, int32_t count) {
  const ssize_t n = ::readv(fd, iov, count);
  if (n >= 0) return static_cast<int>(n);
  if (errno == EAGAIN) return -1;
  TC_LOG(3, "read file fd: %d, error: %s", fd, strerror(errno));
  return 0;
}

int send_tcp_some(int32_t fd, const void* buf, int32_t len) {
  for (;;) {
    // MSG_NOSIGNAL: a peer gone is an error result here, whatever the process does with SIGPIPE.
    const ssize_t n = ::send(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EAGAIN) return 0;
    if (errno == EINTR) continue;
    TC_LOG(3, "send tcp fd: %d, error: %s", fd, strerror(errno));
    return -1;
  }
}

int send_file_some(int32_t fd, const iovec* iov, int32_t count) {
  for (;;) {
    const ssize_t n = ::writev(fd, iov, count);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EAGAIN) return 0;
    if (errno == EINTR) continue;
    TC_LOG(3, "write file fd: %d, error: %s", fd, strerror(errno));
    return -1;
  }
}

void bytes_to_hex(const std::string& in, std::string& out) {
  static const std::string digits = "0123456789abcdef";
  // By index and with the size taken first, so that `in` may be `out`.
  const size_t n = in.size();
  out.reserve(out.size() + 2 * n);
  for (size_t i = 0; i < n; ++i) {
    const auto byte = static_cast<unsigned char>(in[i]);
    out.push_back(digits[byte >> 4]);
    out.push_back(digits[byte & 0x0F]);
  }
}

void hex_to_bytes(const std::string& in, std::string& out) {
  std::string bytes(in.size() / 2, '\0');
  for (size_t i = 0; i + 1 < in.size(); i += 2) {
    bytes[i / 2] = static_cast<char>(16 * hex_char_value(in[i]) + hex_char_value(in[i + 1]));
  }
  out = std::move(bytes);
}

int hex_char_value(char ch) {
  if (ch >= '0' && ch <= '9') return ch - '0';
  if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
  if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
  return 0;
}

std::string to_lower(const std::string& s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string to_upper(const std::string& s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
