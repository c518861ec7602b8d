// Channel I/O helpers over real loopback sockets, pipes and pseudo-terminals.

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "service/common.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using tc_test::LogCaptureScope;

namespace {

const std::string kLoopback = "127.0.0.1";
// Documentation address, never assigned to this host: binds to it fail.
const std::string kForeignIp = "192.0.2.1";

// A port the kernel just handed out, released again for the code under test.
uint16_t free_port(int type) {
  int probe = socket(AF_INET, type, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  EXPECT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  close(probe);
  return ntohs(addr.sin_port);
}

uint16_t local_port(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  return ntohs(addr.sin_port);
}

int open_fd_count() {
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir)) ++n;
  closedir(dir);
  return n;
}

bool readable(int fd, int timeout_ms = 5000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1;
}

bool nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

std::string fd_text(int fd) { return std::to_string(fd); }

// Round trips of any bytes are the LoRa fuzzer's invariant.
TEST(HexAndCase, HexIsAppendedInLowerCaseAndLooseTextReadsWithoutError) {
  std::string hex = "x";
  bytes_to_hex(std::string("\x00\x0a\xab\xff", 4), hex);
  EXPECT_EQ(hex, "x000aabff");  // appended, not replaced
  std::string back = "stale";

  // Either case; a non-digit counts as 0 and an odd last digit is dropped.
  const std::pair<const char*, std::string> loose[] = {
      {"0AfF", std::string("\x0a\xff", 2)}, {"0g1", std::string(1, '\0')}, {"abc", "\xab"}, {"", ""}};
  for (const auto& [text, bytes] : loose) {
    hex_to_bytes(text, back);
    EXPECT_EQ(back, bytes) << text;
  }
  for (char ch : {'/', ':', '@', 'G', '`', 'g', ' ', '\0', '\xff'}) EXPECT_EQ(hex_char_value(ch), 0) << int(ch);
}

TEST(HexAndCase, OnlyAsciiLettersChangeCase) {
  const std::string mixed("aZ@[`{\0\xc4\xe4 Mq", 11);
  EXPECT_EQ(to_lower(mixed), std::string("az@[`{\0\xc4\xe4 mq", 11));
  EXPECT_EQ(to_upper(mixed), std::string("AZ@[`{\0\xc4\xe4 MQ", 11));
}

TEST(Tcp, PortZeroGivesAClientSocketAnyOtherPortAListener) {
  const uint16_t port = free_port(SOCK_STREAM);
  for (uint16_t asked : {uint16_t(0), port}) {
    int fd = create_tcp(kLoopback, asked);
    ASSERT_GT(fd, 0);
    int accepting = -1;
    socklen_t len = sizeof accepting;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &len), 0);
    EXPECT_EQ(accepting, asked != 0);
    EXPECT_EQ(local_port(fd), asked);
    EXPECT_TRUE(nonblocking(fd));
    close(fd);
  }
}

TEST(Tcp, FailuresLogOnceAndLeakNothing) {
  LogCaptureScope logs;
  const int before = open_fd_count();
  EXPECT_EQ(create_tcp(kForeignIp, free_port(SOCK_STREAM)), -1);
  EXPECT_EQ(open_fd_count(), before);
  EXPECT_EQ(logs.count("bind error: Cannot assign requested address"), 1u) << logs.dump();

  EXPECT_EQ(connect_tcp(-1, kLoopback, 1), -1);
  EXPECT_TRUE(logs.contains("connect error: Bad file descriptor")) << logs.dump();

  int listener = create_tcp(kLoopback, free_port(SOCK_STREAM));
  ASSERT_GT(listener, 0);
  logs.clear();
  EXPECT_EQ(accept_tcp(listener), -1);  // nothing pending: quiet
  EXPECT_TRUE(logs.lines().empty()) << logs.dump();
  close(listener);
}

// A connected pair made the way the service would make it.
class TcpPair : public testing::Test {
 protected:
  void SetUp() override {
    listener = create_tcp(kLoopback, free_port(SOCK_STREAM));
    ASSERT_GT(listener, 0);
    client = create_tcp(kLoopback, 0);
    ASSERT_GT(client, 0);
    ASSERT_EQ(connect_tcp(client, kLoopback, local_port(listener)), 0);
    ASSERT_TRUE(readable(listener));
    server = accept_tcp(listener);
    ASSERT_GT(server, 0);
  }
  void TearDown() override {
    for (int fd : {listener, client, server})
      if (fd > 0) close(fd);
  }
  LogCaptureScope logs;
  int listener = -1, client = -1, server = -1;
  char buf[64];
};

TEST_F(TcpPair, BytesCrossAndAnEmptySocketReadsMinusOne) {
  EXPECT_TRUE(nonblocking(server));
  EXPECT_EQ(logs.count("accept from 127.0.0.1:" + std::to_string(local_port(client)) + ", fd: " + fd_text(server)),
            1u)
      << logs.dump();
  logs.clear();
  EXPECT_EQ(recv_tcp(server, buf, sizeof buf), -1);
  EXPECT_EQ(send_tcp(client, "a\0b", 3), 3);
  ASSERT_TRUE(readable(server));
  ASSERT_EQ(recv_tcp(server, buf, sizeof buf), 3);
  EXPECT_EQ(std::string(buf, 3), std::string("a\0b", 3));
  EXPECT_EQ(recv_tcp(server, buf, sizeof buf), -1);
  EXPECT_TRUE(logs.lines().empty()) << logs.dump();
}

TEST_F(TcpPair, OrderlyCloseReadsZeroQuietly) {
  close(server);
  server = -1;
  ASSERT_TRUE(readable(client));
  EXPECT_EQ(recv_tcp(client, buf, sizeof buf), 0);
  EXPECT_EQ(logs.count_prefix("recv tcp"), 0u) << logs.dump();
}

TEST_F(TcpPair, ResetReadsZeroAndLaterSendsFail) {
  linger abort_on_close{1, 0};
  ASSERT_EQ(setsockopt(server, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close), 0);
  close(server);
  server = -1;
  ASSERT_TRUE(readable(client));
  EXPECT_EQ(recv_tcp(client, buf, sizeof buf), 0);
  EXPECT_EQ(logs.count("recv tcp fd: " + fd_text(client) + ", error: Connection reset by peer"), 1u) << logs.dump();
  EXPECT_LT(send_tcp(client, "x", 1), 0);
  EXPECT_EQ(logs.count_prefix("send tcp fd: " + fd_text(client) + ", error: "), 1u) << logs.dump();
}

TEST(Udp, DatagramsCrossAndAnEmptyOneReadsMinusOne) {
  LogCaptureScope logs;
  const uint16_t port_a = free_port(SOCK_DGRAM), port_b = free_port(SOCK_DGRAM);
  int a = create_udp(kLoopback, port_a, 0);
  int b = create_udp(kLoopback, port_b, 1);
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  EXPECT_TRUE(nonblocking(a));
  EXPECT_FALSE(nonblocking(b));
  EXPECT_TRUE(logs.contains("create_udp, create success fd[" + fd_text(a) + "] 127.0.0.1:" + std::to_string(port_a)))
      << logs.dump();

  char buf[64];
  EXPECT_EQ(send_udp(b, "{\"x\":1}", 7, kLoopback, port_a), 7);
  ASSERT_TRUE(readable(a));
  ASSERT_EQ(recv_udp(a, buf, sizeof buf), 7);
  EXPECT_EQ(std::string(buf, 7), "{\"x\":1}");

  EXPECT_EQ(send_udp(b, "", 0, kLoopback, port_a), 0);
  ASSERT_TRUE(readable(a));
  EXPECT_EQ(recv_udp(a, buf, sizeof buf), -1);
  EXPECT_TRUE(logs.contains("recv_udp, recvfrom error fd:" + fd_text(a) + " nread:0 error:Success")) << logs.dump();
  EXPECT_EQ(recv_udp(a, buf, sizeof buf), -1);
  EXPECT_TRUE(logs.contains("recv_udp, recvfrom error fd:" + fd_text(a) +
                            " nread:-1 error:Resource temporarily unavailable"))
      << logs.dump();
  close(a);
  close(b);
}

TEST(Udp, FailuresPassThroughOrCloseTheSocket) {
  LogCaptureScope logs;
  const int before = open_fd_count();
  EXPECT_EQ(create_udp(kForeignIp, free_port(SOCK_DGRAM), 0), -1);
  EXPECT_EQ(open_fd_count(), before);
  EXPECT_EQ(logs.count("create_udp, bind error: Cannot assign requested address"), 1u) << logs.dump();
  logs.clear();
  EXPECT_EQ(send_udp(-1, "x", 1, kLoopback, 9), -1);  // sendto's own result, no line
  EXPECT_TRUE(logs.lines().empty()) << logs.dump();
}

TEST(Epoll, RegistrationIsEdgeTriggeredAndChecked) {
  LogCaptureScope logs;
  int ep = epoll_create1(0);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  ASSERT_EQ(epoll_add(ep, p[0]), 0);
  EXPECT_EQ(epoll_add(ep, p[0]), -1);
  EXPECT_TRUE(logs.contains("epoll_ctl EPOLL_CTL_ADD fd: " + fd_text(p[0]) + ", error: File exists")) << logs.dump();

  ASSERT_EQ(write(p[1], "x", 1), 1);
  epoll_event ev{};
  ASSERT_EQ(epoll_wait(ep, &ev, 1, 5000), 1);
  EXPECT_EQ(ev.data.fd, p[0]);
  EXPECT_TRUE(ev.events & EPOLLIN);
  EXPECT_EQ(epoll_wait(ep, &ev, 1, 0), 0);  // unread, but no new edge

  EXPECT_EQ(epoll_del(ep, p[0]), 0);
  EXPECT_EQ(epoll_del(ep, p[0]), -1);
  EXPECT_TRUE(logs.contains("epoll_ctl EPOLL_CTL_DEL fd: " + fd_text(p[0]) + ", error: No such file or directory"))
      << logs.dump();
  for (int fd : {ep, p[0], p[1]}) close(fd);
}

// A pipe with a non-blocking read end, standing in for a device file.
class FilePipe : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
    r = p[0];
    w = p[1];
  }
  void TearDown() override {
    for (int fd : {r, w})
      if (fd >= 0) close(fd);
  }
  void close_writer() {
    close(w);
    w = -1;
  }
  LogCaptureScope logs;
  int p[2];
  int r = -1, w = -1;
};

TEST_F(FilePipe, StringWriteIsAllOrNothing) {
  EXPECT_EQ(send_file(w, std::string()), 0);
  EXPECT_TRUE(logs.contains("send_file, fd:" + fd_text(w) + " size:0"));
  char buf[8];
  EXPECT_EQ(recv_file(r, buf, sizeof buf), -1);  // nothing was written
  EXPECT_EQ(send_file(w, std::string("a\0b", 3)), 1);

  // One page of room: the write is cut short and not retried.
  ASSERT_EQ(fcntl(w, F_SETPIPE_SZ, 4096), 4096);
  ASSERT_EQ(recv_file(r, buf, sizeof buf), 3);
  EXPECT_EQ(send_file(w, std::string(5000, 'x')), 0);
  EXPECT_TRUE(logs.contains("send_file, write error fd:" + fd_text(w) + " nwrite:4096 size:5000 error:Success"))
      << logs.dump();

  close(r);
  r = -1;
  EXPECT_EQ(send_file(w, std::string("abc")), 0);
  EXPECT_TRUE(logs.contains("send_file, write error fd:" + fd_text(w) + " nwrite:-1 size:3 error:Broken pipe"))
      << logs.dump();
}

TEST_F(FilePipe, StringReadTakesAtMost1024AndFailsOnNothingOrEnd) {
  std::string out = "old";
  EXPECT_EQ(recv_file(r, out), 0);
  EXPECT_EQ(out, "old");
  EXPECT_TRUE(logs.contains("recv_file, read error fd:" + fd_text(r) +
                            " nread:-1 error:Resource temporarily unavailable"))
      << logs.dump();

  std::string sent(1500, '\0');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7);
  ASSERT_EQ(write(w, sent.data(), sent.size()), 1500);
  ASSERT_EQ(recv_file(r, out), 1);
  EXPECT_EQ(out, sent.substr(0, 1024));
  ASSERT_EQ(recv_file(r, out), 1);
  EXPECT_EQ(out, sent.substr(1024));  // replaced, not appended

  close_writer();
  EXPECT_EQ(recv_file(r, out), 0);
  EXPECT_TRUE(logs.contains("recv_file, read error fd:" + fd_text(r) + " nread:0 error:Success")) << logs.dump();
}

TEST_F(FilePipe, BufferFormFoldsErrorsIntoZero) {
  char buf[8];
  EXPECT_EQ(recv_file(r, buf, sizeof buf), -1);
  EXPECT_EQ(send_file(w, "abc", 3), 3);
  EXPECT_EQ(recv_file(r, buf, sizeof buf), 3);
  EXPECT_TRUE(logs.lines().empty()) << logs.dump();
  close_writer();
  EXPECT_EQ(recv_file(r, buf, sizeof buf), 0);

  EXPECT_EQ(recv_file(-1, buf, sizeof buf), 0);
  EXPECT_EQ(logs.count("read file fd: -1, error: Bad file descriptor"), 1u) << logs.dump();
  EXPECT_EQ(send_file(-1, "abc", 3), -1);
  EXPECT_EQ(logs.count("write file fd: -1, error: Bad file descriptor"), 1u) << logs.dump();
}

class DeviceFile : public testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tc-io-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    link = dir + "/ttyTC0";
  }
  void TearDown() override { std::filesystem::remove_all(dir); }
  static std::string target(const std::string& path) {
    std::error_code ec;
    return std::filesystem::read_symlink(path, ec).string();
  }
  LogCaptureScope logs;
  std::string dir, link;
};

TEST_F(DeviceFile, LinkReachesTheSlaveBothWaysWithoutEcho) {
  int master = create_device_file(link);
  ASSERT_GE(master, 0) << logs.dump();
  const std::string slave_name = target(link);
  EXPECT_EQ(slave_name.rfind("/dev/pts/", 0), 0u) << slave_name;
  EXPECT_EQ(logs.count_prefix("create_device_file, link:" + link + ", sptyname:" + slave_name + ", mpty:" +
                              fd_text(master) + ", spty:"),
            1u)
      << logs.dump();
  EXPECT_TRUE(logs.contains("create_device_file, create success fd[" + fd_text(master) + "] " + link));
  EXPECT_TRUE(nonblocking(master));
  termios tio{};
  ASSERT_EQ(tcgetattr(master, &tio), 0);
  EXPECT_EQ(tio.c_lflag & 0x78, 0u);
  EXPECT_TRUE(tio.c_lflag & ICANON);  // echo off only, not raw

  int slave = open(link.c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(slave, 0);
  ASSERT_EQ(send_file(master, std::string("ping\n")), 1);
  ASSERT_TRUE(readable(slave));
  char buf[16];
  ASSERT_EQ(read(slave, buf, sizeof buf), 5);
  EXPECT_EQ(std::string(buf, 5), "ping\n");
  EXPECT_FALSE(readable(master, 200));  // no echo came back

  ASSERT_EQ(write(slave, "pong", 4), 4);
  ASSERT_TRUE(readable(master));
  std::string out;
  ASSERT_EQ(recv_file(master, out), 1);
  EXPECT_EQ(out, "pong");
  close(slave);
  close(master);
}

TEST_F(DeviceFile, ReplacesAnOldLinkButNeverARegularFile) {
  ASSERT_EQ(symlink("/nonexistent/tty", link.c_str()), 0);
  int first = create_device_file(link);
  ASSERT_GE(first, 0) << logs.dump();
  const std::string first_slave = target(link);
  int second = create_device_file(link);
  ASSERT_GE(second, 0) << logs.dump();
  EXPECT_NE(target(link), first_slave);
  EXPECT_EQ(target(link).rfind("/dev/pts/", 0), 0u);
  close(first);
  close(second);

  const std::string plain = dir + "/plain";
  std::ofstream(plain) << "keep";
  const int before = open_fd_count();
  EXPECT_EQ(create_device_file(plain), -1);
  EXPECT_EQ(open_fd_count(), before);
  EXPECT_EQ(logs.count("create_device_file, symlink error: File exists"), 1u) << logs.dump();
  struct stat st {};
  ASSERT_EQ(lstat(plain.c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_size, 4);
}

}  // namespace
