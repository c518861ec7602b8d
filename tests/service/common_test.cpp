// A device file as a user who leaves the terminal's settings alone meets it:
// the bridge tests open theirs in raw mode, which turns echo off for them.
// Hex and case are carried end to end by the LoRa tests, the socket wrappers
// by every bridge test.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "service/common.h"
#include "tests/support/device_file.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;

TEST(DeviceFile, ALinkToAFreshSlaveCarriesBytesBothWaysWithoutEcho) {
  tc_test::LogCaptureScope log;
  tc_test::TempDir dir;
  const std::string link = dir.file("ttyTC0");
  const int master = create_device_file(link);
  ASSERT_GE(master, 0) << log.dump();
  EXPECT_EQ(std::filesystem::read_symlink(link).string().rfind("/dev/pts/", 0), 0u);
  EXPECT_TRUE(log.contains("create_device_file, create success fd[" + std::to_string(master) + "] " + link));
  const int user = open(link.c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(user, 0);
  ASSERT_EQ(send_file(master, std::string("ping\n")), 1);
  char buf[16];
  pollfd p{user, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 5000), 1);
  ASSERT_EQ(read(user, buf, sizeof buf), 5);
  EXPECT_EQ(std::string(buf, 5), "ping\n");
  ASSERT_EQ(write(user, "pong", 4), 4);
  p = {master, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 5000), 1);
  std::string out;
  ASSERT_EQ(recv_file(master, out), 1);
  EXPECT_EQ(out, "pong") << "no echo of ping before it";
  close(user);
  close(master);
}
