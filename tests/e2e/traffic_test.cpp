// The built service at work: serial links through serial peers to
// pseudo-terminal "remote ports", LoRa traffic and node provisioning against
// the LoRa simulator, and configuration changes typed with tc-config while it
// runs.

#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "tests/e2e/gateway.h"

using namespace e2e;

namespace {

// Every link's state on the bus, and why each peer refused what it did: one
// peer allows the test's pseudo-terminals, /dev/null and a folder, the other
// only what it allows by default (serial ports), and one address has none.
TEST(Serial, StatusShowsEachLinkAndEveryRefusalItsReason) {
  Gateway gw;
  RemotePort port, other;
  const std::string dir = gw.path("d");
  ASSERT_TRUE(std::filesystem::create_directory(dir));
  ASSERT_EQ(symlink("/etc/passwd", (dir + "/passwd").c_str()), 0);
  ASSERT_EQ(symlink(other.path().c_str(), (dir + "/serial").c_str()), 0);
  ASSERT_TRUE(std::ofstream(dir + "/plain") << "x");
  const std::string refused = ": not an allowed serial port";
  const struct {
    const char* ip;
    std::string remote;
    int baud, code;  // code -1: no answer
    std::string message;
  } links[] = {
      {"127.0.0.2", port.path(), 19200, 0, "opened " + port.path() + " 19200 7E2 rtscts"},
      {"127.0.0.2", dir + "/missing", 9600, 2, dir + "/missing: No such file or directory"},
      {"127.0.0.2", "tc-no-such-port", 9600, 13, "/dev/tc-no-such-port" + refused},
      {"127.0.0.2", "/dev/null", 9600, 25, "/dev/null: Inappropriate ioctl for device"},
      {"127.0.0.2", "../../etc/shadow", 9600, 13, "/dev/../../etc/shadow" + refused},
      {"127.0.0.2", "/dev/pts/../watchdog", 9600, 13, "/dev/pts/../watchdog" + refused},
      {"127.0.0.2", "/dev/vda", 9600, 13, "/dev/vda" + refused},
      {"127.0.0.2", dir + "/passwd", 9600, 13, dir + "/passwd" + refused + " (/etc/passwd)"},
      {"127.0.0.2", dir + "/plain", 9600, 13, dir + "/plain: not a character device"},
      {"127.0.0.2", other.path(), 12345, 22, "unsupported baud rate 12345"},
      {"127.0.0.3", other.path(), 9600, 13, other.path() + refused},
      {"127.0.0.3", dir + "/serial", 9600, 13, dir + "/serial" + refused + " (" + other.path() + ")"},
      {"127.0.0.3", "/dev/tty", 9600, 13, "/dev/tty: a console, not a serial port"},
      {"127.0.0.3", "ttyNoSuchPort", 9600, 2, "/dev/ttyNoSuchPort: No such file or directory"},
      {"127.0.0.4", "ttyS0", 9600, -1, ""},
  };
  std::vector<std::string> items;
  std::string expected;
  for (const auto& l : links) {
    const std::string local = gw.path("ttyV" + std::to_string(items.size()));
    items.push_back(serial_device(local, l.ip, l.remote, l.baud, l.code ? "8N1" : "7E2", l.code ? 0 : 1));
    expected += status_line(local, l.ip, l.remote, l.code == 0);
  }
  ASSERT_TRUE(gw.start_bus() && gw.start_manager({{"gw_tc_serial_devices", json_array(items)}}) &&
              gw.start_lora_sim() &&
              gw.start_serial_peer("127.0.0.2", {"--allow", "/dev/pts/*", "--allow", "/dev/null", "--allow", dir + "/*"}) &&
              gw.start_serial_peer("127.0.0.3", {}) && gw.start_service() && gw.wait_ready())
      << gw.error();
  for (const auto& l : links) {
    if (l.code < 0) continue;
    EXPECT_TRUE(gw.service().wait_for_line(
        "deal message, response code:" + std::to_string(l.code) + ", message:" + l.message + ", fd:", kWaitMs))
        << l.message << "\n" << gw.service().output();
  }
  EXPECT_TRUE(gw.wait_status(expected));
  for (size_t i = 0; i < items.size(); ++i) EXPECT_TRUE(path_exists(gw.path("ttyV" + std::to_string(i))));
  // The master shows the slave's settings; a pseudo-terminal keeps the speed,
  // stop bits and flow control but always says 8 bits, no parity.
  termios tio{};
  ASSERT_EQ(tcgetattr(port.fd(), &tio), 0);
  EXPECT_EQ(cfgetospeed(&tio), B19200);
  EXPECT_EQ(cfgetispeed(&tio), B19200);
  EXPECT_EQ(tio.c_cflag & (CSTOPB | CRTSCTS), tcflag_t{CSTOPB | CRTSCTS});
  EXPECT_FALSE(tio.c_lflag & (ICANON | ECHO));
  expect_bounded_stop(gw);
}

// The port streams at 921600 baud into a device file that no program has
// opened yet (its terminal still cooked) for two seconds: the full buffer
// holds the far end back, every byte arrives in order, the link stays up.
// (Readers that pause on either end are the soak's.)
TEST(Serial, ADeviceFileOpenedLateGetsTheWholeStreamRaw) {
  Gateway gw;
  RemotePort port;
  const std::string local = gw.path("ttyV1");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", json_array({serial_device(local, "127.0.0.2", port.path(), 921600)})}}))
      << gw.error();
  const std::string up = status_line(local, "127.0.0.2", port.path(), true);
  ASSERT_TRUE(gw.wait_status(up));

  constexpr size_t kSize = 256 * 1024, kChunk = 4096;
  std::string sent(kSize, '\0');
  std::mt19937 dice(11);
  for (auto& byte : sent) byte = static_cast<char>(dice());
  bool written = false;
  std::thread writer([&] {
    const auto start = std::chrono::steady_clock::now();
    for (size_t at = 0; at < kSize; at += kChunk) {
      // 92160 bytes a second: 921600 baud, 8N1.
      std::this_thread::sleep_until(start + std::chrono::microseconds(at * 1000000 / 92160));
      if (!port.write(sent.substr(at, kChunk))) return;
    }
    written = true;
  });
  std::this_thread::sleep_for(std::chrono::seconds(2));
  DeviceFile device(local);
  const std::string got = device.read(kSize, 4 * kWaitMs);
  writer.join();
  EXPECT_TRUE(written);
  ASSERT_EQ(got.size(), kSize) << gw.service().output();
  EXPECT_TRUE(got == sent) << "bytes differ";
  for (const char* line : {"deal error", "send_file error", "keepalive timeout"}) {
    EXPECT_EQ(gw.service().count_lines(line), 0u) << line << "\n" << gw.service().output();
  }
  EXPECT_EQ(gw.service().count_lines("do connect, " + local), 1u);
  EXPECT_EQ(gw.status().value_or("(no answer)"), up);
  expect_bounded_stop(gw);
}

// A device file named twice, in one list or in both bridges' lists, stays
// with the live device that has it (removing the twin must not unlink it),
// and goes to the other bridge once freed.  (Each list and the RF settings
// changing while running is the soak's cycle.)
TEST(Configuration, ADeviceFileInUseIsNotTakenAgainAndIsFreedWithItsDevice) {
  Gateway gw;
  RemotePort port;
  const std::string shared = gw.path("ttyV2"), lora_own = lora_device(gw.path("lora2"), "70b3d5e75e000002");
  const std::string serial_item = serial_device(shared, "127.0.0.2", port.path());
  const std::string twin = serial_device(shared, "127.0.0.3", "ttyS1"), lora_shared = lora_device(shared, kEui);
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", json_array({serial_item})},
                            {"gw_tc_loralan_devices", json_array({lora_own})},
                            {"gw_tc_loralan_rf", kRf}}))
      << gw.error();
  auto& service = gw.service();
  const std::string up = status_line(shared, "127.0.0.2", port.path(), true);
  ASSERT_TRUE(gw.wait_status(up));

  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", json_array({lora_own, lora_shared})), 0);
  EXPECT_TRUE(service.wait_for_line("threadProc, device file " + shared + " is in use, skip", kWaitMs))
      << service.output();
  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", json_array({serial_item, twin})), 0);
  EXPECT_TRUE(service.wait_for_line("add device, device file " + shared + " is in use, skip", kWaitMs))
      << service.output();
  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", json_array({lora_own})), 0);
  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", json_array({serial_item})), 0);
  EXPECT_TRUE(service.wait_for_line("callback_config, gw_tc_serial_devices:" + json_array({serial_item}), kWaitMs));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(service.count_lines("delete device, " + shared) + service.count_lines("dev_file:" + shared), 0u)
      << service.output();
  EXPECT_EQ(gw.status().value_or("(no answer)"), up);
  DeviceFile device(shared);
  ASSERT_TRUE(device.write("ping"));
  EXPECT_EQ(port.read(4, kWaitMs), "ping");
  ASSERT_TRUE(port.write("pong"));
  EXPECT_EQ(device.read(4, kWaitMs), "pong");

  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", "[]"), 0);
  ASSERT_TRUE(service.wait_for_line("delete device, " + shared, kWaitMs)) << service.output();
  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", json_array({lora_own, lora_shared})), 0);
  EXPECT_TRUE(service.wait_for_line("dev_file:" + shared + ", dev_eui:00AA11BB22CC33DD", kWaitMs))
      << service.output();
  expect_bounded_stop(gw);
}

}  // namespace
