// Channel I/O helpers: hex and case, and device files on real pseudo-terminals.
// The socket wrappers are exercised by every bridge test.

#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
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
