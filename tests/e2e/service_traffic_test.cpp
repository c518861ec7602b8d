// The built service at work on a real gateway bus: serial links through a
// serial peer to a pseudo-terminal "remote port", LoRa traffic and node
// provisioning against the LoRa simulator, and configuration changes typed
// with tc-config while it runs.  Isolated: the bus path and the ports are fixed.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "service/common.h"
#include "tests/e2e/gateway.h"
#include "tests/e2e/remote_port.h"

using e2e::Gateway;
using e2e::kSlowdown;
using lora_test::DeviceFile;
using lora_test::path_exists;
using Zentrova::Iot::TransparentChannel::to_upper;

namespace {

const std::string kLoraSim = TC_BINARY_DIR "/tools/tc-lora-sim/tc-lora-sim";
const char* const kEui = "00aa11bb22cc33dd";
const char* const kRf = R"({"class-c":{"RX2Frequency":"486900000","TxPower":"17","SF":"7"}})";
const int kWaitMs = 10000 * kSlowdown;

std::string connected(const std::string& local, const std::string& ip, const std::string& remote) {
  return e2e::status_line(local, ip, remote, true);
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 dice(seed);
  std::string bytes(n, '\0');
  for (auto& b : bytes) b = static_cast<char>(dice() & 0xFF);
  return bytes;
}

std::string hex(const std::string& bytes) {
  std::string text;
  Zentrova::Iot::TransparentChannel::bytes_to_hex(bytes, text);
  return text;
}

// How many lines of `process` after the first `before` contain `text`.
size_t count_since(tc_test::ChildProcess& process, size_t before, const std::string& text) {
  const auto lines = process.lines();
  size_t found = 0;
  for (size_t i = before; i < lines.size(); ++i) found += lines[i].find(text) != std::string::npos;
  return found;
}

TEST(Serial, StatusIsGreenWhenConnectedAndYellowWhenRefusedOrUnreachable) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  const std::string ok = gw.path("ttyV1"), refused = gw.path("ttyV2"), unreachable = gw.path("ttyV3");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices",
                             e2e::json_array({e2e::serial_device(ok, "127.0.0.2", port.path()),
                                              e2e::serial_device(refused, "127.0.0.2", "/dev/watchdog"),
                                              e2e::serial_device(unreachable, "127.0.0.3", "ttyS0")})}}))
      << gw.error();

  // The peer refuses a device it does not allow, with the reason.
  EXPECT_TRUE(gw.serial_peer().wait_for_line("/dev/watchdog refused, code 13", kWaitMs)) << gw.serial_peer().output();
  EXPECT_TRUE(gw.service().wait_for_line(
      "deal message, response code:13, message:/dev/watchdog: not an allowed serial port", kWaitMs))
      << gw.service().output();
  const std::string expected = connected(ok, "127.0.0.2", port.path()) +
                               e2e::status_line(refused, "127.0.0.2", "/dev/watchdog", false) +
                               e2e::status_line(unreachable, "127.0.0.3", "ttyS0", false);
  std::string last;
  EXPECT_TRUE(gw.wait_status(expected, kWaitMs, &last)) << last;
  for (const auto& path : {ok, refused, unreachable}) EXPECT_TRUE(path_exists(path)) << path;
  e2e::expect_bounded_stop(gw);
}

// The whole path under flow control: the port streams at 921600 baud while
// the program on the gateway is not there yet or stops reading for seconds,
// and the device file is written while the far end stops reading.  A full
// buffer holds the writer back; every byte arrives in order, the link stays
// up, nothing is logged as a write error.
TEST(Serial, ReadersThatFallBehindHoldTheStreamBackWithoutLoss) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  const std::string local = gw.path("ttyV1");
  std::string item = e2e::serial_device(local, "127.0.0.2", port.path());
  item.replace(item.find("115200"), 6, "921600");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", e2e::json_array({item})}})) << gw.error();
  const std::string up = connected(local, "127.0.0.2", port.path());
  std::string last;
  ASSERT_TRUE(gw.wait_status(up, kWaitMs, &last)) << last;

  constexpr size_t kSize = 256 * 1024, kChunk = 4096;
  constexpr double kRate = 92160;  // bytes per second at 921600 baud, 8N1
  const struct {
    const char* name;
    bool to_device;  // the port streams towards the device file
    int open_after_ms;
    size_t pause_at;
    int pause_ms;
  } cases[] = {
      // First: the device file has never been opened, its terminal is still cooked.
      {"the program on the gateway starts late", true, 2000, 0, 0},
      {"the program on the gateway pauses", true, 0, 64 * 1024, 3000},
      {"the far end pauses", false, 0, 64 * 1024, 3000},
  };
  unsigned seed = 10;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string sent = random_bytes(kSize, ++seed);
    std::unique_ptr<DeviceFile> device;
    if (c.open_after_ms == 0) device = std::make_unique<DeviceFile>(local);
    bool written = false;
    std::thread writer([&] {
      const auto start = std::chrono::steady_clock::now();
      for (size_t at = 0; at < kSize; at += kChunk) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(static_cast<int64_t>(at / kRate * 1e6)));
        if (!(c.to_device ? port.write(sent.substr(at, kChunk)) : device->write(sent.substr(at, kChunk)))) return;
      }
      written = true;
    });
    if (!device) {
      std::this_thread::sleep_for(std::chrono::milliseconds(c.open_after_ms));
      device = std::make_unique<DeviceFile>(local);
    }
    auto read = [&](size_t n, int ms) { return c.to_device ? device->read(n, ms) : port.read(n, ms); };
    std::string got = read(c.pause_at, kWaitMs);
    std::this_thread::sleep_for(std::chrono::milliseconds(c.pause_ms));
    got += read(kSize - got.size(), 3 * kWaitMs);
    writer.join();
    EXPECT_TRUE(written);
    ASSERT_EQ(got.size(), kSize) << gw.service().output();
    EXPECT_TRUE(got == sent) << "bytes differ";
  }
  for (const char* line : {"deal error", "send_file error", "send_tcp error", "keepalive timeout"}) {
    EXPECT_EQ(gw.service().count_lines(line), 0u) << line << "\n" << gw.service().output();
  }
  EXPECT_EQ(gw.service().count_lines("do connect, " + local), 1u);
  EXPECT_EQ(gw.status().value_or("(no answer)"), up);
  e2e::expect_bounded_stop(gw);
}

TEST(Configuration, SerialListLoraListAndRfSetWithTcConfigApplyWhileRunning) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  const std::string serial_old = gw.path("ttyV1"), serial_new = gw.path("ttyV2");
  const std::string lora_old = gw.path("lora1"), lora_new = gw.path("lora2");
  const std::string eui_new = "70b3d5e75e000002";
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices",
                             e2e::json_array({e2e::serial_device(serial_old, "127.0.0.2", port.path())})},
                            {"gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(lora_old, kEui)})},
                            {"gw_tc_loralan_rf", kRf}}))
      << gw.error();
  auto& service = gw.service();
  auto& sim = gw.lora_sim();
  std::string last;
  ASSERT_TRUE(gw.wait_status(connected(serial_old, "127.0.0.2", port.path()), kWaitMs, &last)) << last;
  ASSERT_TRUE(path_exists(lora_old));

  // Serial list: the old device file goes, the new one comes and connects.
  const std::string serial_list = e2e::json_array({e2e::serial_device(serial_new, "127.0.0.2", port.path())});
  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", serial_list), 0);
  EXPECT_TRUE(service.wait_for_line("callback_config, gw_tc_serial_devices:" + serial_list, kWaitMs))
      << service.output();
  EXPECT_TRUE(service.wait_for_line("delete device, " + serial_old, kWaitMs)) << service.output();
  EXPECT_TRUE(service.wait_for_line("add device, " + serial_new, kWaitMs)) << service.output();
  EXPECT_TRUE(gw.wait_status(connected(serial_new, "127.0.0.2", port.path()), kWaitMs, &last)) << last;
  EXPECT_FALSE(path_exists(serial_old));
  EXPECT_TRUE(path_exists(serial_new));

  // LoRa list: the bridge swaps its device files, the node service gets the
  // new list (emptied first).
  const size_t sim_before = sim.lines().size();
  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(lora_new, eui_new)})), 0);
  EXPECT_TRUE(service.wait_for_line("threadProc, delete device fd:", kWaitMs)) << service.output();
  EXPECT_TRUE(service.wait_for_line("dev_file:" + lora_new, kWaitMs)) << service.output();
  EXPECT_TRUE(sim.wait_for_line("node sync count=1 devEui=" + to_upper(eui_new) + " -> result 0", kWaitMs))
      << sim.output();
  EXPECT_EQ(count_since(sim, sim_before, "node sync count=0 devEui= -> result 0"), 1u) << sim.output();
  EXPECT_FALSE(path_exists(lora_old));
  EXPECT_TRUE(path_exists(lora_new));

  // RF: the new settings reach the node service.
  ASSERT_EQ(gw.set_config("gw_tc_loralan_rf", R"({"class-c":{"RX2Frequency":"868500000","TxPower":"20","SF":"9"}})"),
            0);
  EXPECT_TRUE(sim.wait_for_line(R"(node set_rf RX2Frequency="868500000" TxPower="20" SF="9" -> result 0)", kWaitMs))
      << sim.output();

  // The serial link was left alone by the LoRa changes.
  EXPECT_EQ(gw.status().value_or("(no answer)"), connected(serial_new, "127.0.0.2", port.path()));
  e2e::expect_bounded_stop(gw);
}

// A device file named by two items (of one list, or of both bridges) stays
// with the live device that has it: the others are skipped with one line, and
// removing one of them leaves the file alone.  Freed, it goes to the next.
TEST(Configuration, ADeviceFileInUseIsNotTakenAgain) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  const std::string shared = gw.path("ttyV1"), own = gw.path("lora1");
  const std::string serial_item = e2e::serial_device(shared, "127.0.0.2", port.path());
  const std::string twin = e2e::serial_device(shared, "127.0.0.3", "ttyS1");
  const std::string lora_own = e2e::lora_device(own, kEui), lora_shared = e2e::lora_device(shared, "70b3d5e75e000002");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", e2e::json_array({serial_item})},
                            {"gw_tc_loralan_devices", e2e::json_array({lora_own})}}))
      << gw.error();
  auto& service = gw.service();
  const std::string up = connected(shared, "127.0.0.2", port.path());
  std::string last;
  ASSERT_TRUE(gw.wait_status(up, kWaitMs, &last)) << last;

  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", e2e::json_array({lora_own, lora_shared})), 0);
  EXPECT_TRUE(service.wait_for_line("threadProc, device file " + shared + " is in use, skip", kWaitMs))
      << service.output();
  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", e2e::json_array({serial_item, twin})), 0);
  EXPECT_TRUE(service.wait_for_line("add device, device file " + shared + " is in use, skip", kWaitMs))
      << service.output();
  // Both removed again: neither removal may unlink the first one's file.
  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", e2e::json_array({lora_own})), 0);
  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", e2e::json_array({serial_item})), 0);
  EXPECT_TRUE(service.wait_for_line("callback_config, gw_tc_serial_devices:" + e2e::json_array({serial_item}),
                                    kWaitMs));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(service.count_lines("delete device, " + shared), 0u) << service.output();
  EXPECT_EQ(service.count_lines("dev_file:" + shared), 0u) << service.output();
  EXPECT_EQ(gw.status().value_or("(no answer)"), up);
  ASSERT_TRUE(path_exists(shared));
  DeviceFile device(shared);
  ASSERT_TRUE(device.write("ping"));
  EXPECT_EQ(port.read(4, kWaitMs), "ping");
  ASSERT_TRUE(port.write("pong"));
  EXPECT_EQ(device.read(4, kWaitMs), "pong");

  // Released with its device, the path is free for the other bridge.
  ASSERT_EQ(gw.set_config("gw_tc_serial_devices", "[]"), 0);
  ASSERT_TRUE(service.wait_for_line("delete device, " + shared, kWaitMs)) << service.output();
  ASSERT_EQ(gw.set_config("gw_tc_loralan_devices", e2e::json_array({lora_own, lora_shared})), 0);
  EXPECT_TRUE(service.wait_for_line("dev_file:" + shared + ", dev_eui:70B3D5E75E000002", kWaitMs))
      << service.output();
  e2e::expect_bounded_stop(gw);
}

TEST(Lora, UplinksComeOutOfTheDeviceFileAndWritesGoDown) {
  Gateway gw;
  const std::string file = gw.path("lora1");
  ASSERT_TRUE(gw.start_all({{"gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(file, kEui)})},
                            {"gw_tc_loralan_down_packet_interval", "100"}}))
      << gw.error();
  ASSERT_TRUE(path_exists(file));
  DeviceFile device(file);

  // One-shot, as an operator would send it: a confirmed uplink (mtype 4).
  tc_test::ChildProcess once({kLoraSim, "uplink", to_upper(kEui), hex("Hello"), "5", "4"});
  int status = 0;
  ASSERT_TRUE(once.wait_exit(kWaitMs, &status));
  EXPECT_EQ(tc_test::exit_code(status), 0) << once.output();
  EXPECT_EQ(device.read(5, kWaitMs), "Hello");

  // Through the running simulator: binary bytes, lower-case EUI.
  const std::string up = random_bytes(200, 3);
  ASSERT_TRUE(gw.lora_sim().write_input("uplink " + std::string(kEui) + " " + hex(up) + " 7\n"));
  EXPECT_TRUE(device.read(up.size(), kWaitMs) == up) << "uplink bytes differ";

  // Downlink: what a program writes becomes one datagram to the LAN server.
  const std::string down = std::string("down\0\xff\x7f", 7);
  ASSERT_TRUE(device.write(down));
  const std::string shown = "data=\"" + hex(down) + "\" (7 bytes";
  ASSERT_TRUE(gw.lora_sim().wait_for_line(shown, kWaitMs)) << gw.lora_sim().output();
  const auto lines = gw.lora_sim().lines();
  const std::string& line = lines[static_cast<size_t>(e2e::find_line(lines, shown))];
  EXPECT_EQ(line.rfind(R"(downlink devEUI="00AA11BB22CC33DD" fPort="10" confirmed="false" )", 0), 0u) << line;
  EXPECT_NE(line.find("-> result 0"), std::string::npos) << line;
  e2e::expect_bounded_stop(gw);
}

TEST(Lora, TwoHundredFiftyNodesAreProvisionedInBatchesOfAHundred) {
  Gateway gw;
  constexpr int kNodes = 250;
  std::vector<std::string> items, euis;
  for (int i = 0; i < kNodes; ++i) {
    char eui[17];
    std::snprintf(eui, sizeof eui, "70b3d5e75e%06x", i);
    euis.push_back(to_upper(eui));
    items.push_back(e2e::lora_device(gw.path("lora" + std::to_string(i)), eui));
  }
  ASSERT_TRUE(gw.start_all({{"gw_tc_loralan_devices", e2e::json_array(items)}, {"gw_tc_loralan_rf", kRf}}))
      << gw.error();

  auto batch = [&](const char* method, int from, int to) {
    std::string line = std::string("node ") + method + " count=" + std::to_string(to - from) + " devEui=";
    for (int i = from; i < to; ++i) line += (i > from ? "," : "") + euis[static_cast<size_t>(i)];
    return line + " -> result 0";
  };
  const std::vector<std::string> expected = {"node set_rf ", batch("sync", 0, 0), batch("sync", 0, 100),
                                             batch("add", 100, 200), batch("add", 200, 250)};
  ASSERT_TRUE(gw.lora_sim().wait_for_line(expected.back(), kWaitMs)) << gw.lora_sim().output();
  std::vector<std::string> node_lines;
  for (const auto& line : gw.lora_sim().lines()) {
    if (line.rfind("node ", 0) == 0) node_lines.push_back(line);
  }
  ASSERT_EQ(node_lines.size(), expected.size()) << gw.lora_sim().output();
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(node_lines[i].rfind(expected[i], 0), 0u) << node_lines[i];
  for (size_t i = 1; i < expected.size(); ++i) EXPECT_EQ(node_lines[i], expected[i]);

  // The LAN bridge made a device file for every one of them (on its own
  // thread, which may still be at it when provisioning is done).
  EXPECT_TRUE(gw.service().wait_for_line("threadProc, add device fd:", kWaitMs, kNodes));
  EXPECT_EQ(gw.service().count_lines("threadProc, add device fd:"), static_cast<size_t>(kNodes));
  EXPECT_TRUE(path_exists(gw.path("lora249")));
  e2e::expect_bounded_stop(gw);
}

}  // namespace
