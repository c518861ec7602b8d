// The LoRa LAN bridge with real parts: keys from the development
// configuration manager on a private bus; the test plays the LoRa LAN server
// on 127.0.0.1:18098 and the user of the device files (pseudo-terminals).

#include "service/lora_lan.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "service/common.h"
#include "tests/service/lora_test_support.h"
#include "tests/support/log_capture.h"

using namespace std::chrono;
using namespace Zentrova::Iot::TransparentChannel;
using lora_test::DeviceFile;
using lora_test::path_exists;
using lora_test::udp_port_free;

namespace {

const char* const kDevicesKey = "gw_tc_loralan_devices";
const char* const kIntervalKey = "gw_tc_loralan_down_packet_interval";
const std::string kEui = "00aa11bb22cc33dd";
const std::string kEuiUpper = "00AA11BB22CC33DD";
const std::string kOtherEui = "0102030405060708";

std::string item(const std::string& file, const std::string& eui, const std::string& extra = "") {
  return "{\"devFile\":\"" + file + "\",\"devEUI\":\"" + eui + "\"" + extra + "}";
}

std::string list(const std::vector<std::string>& items) {
  std::string text = "[";
  for (size_t i = 0; i < items.size(); ++i) text += (i ? "," : "") + items[i];
  return text + "]";
}

std::string uplink(const std::string& eui, const std::string& data, int fport, int mtype = 2) {
  return "{\"devEui\":\"" + eui + "\",\"data\":\"" + data + "\",\"mtype\":" + std::to_string(mtype) +
         ",\"fport\":" + std::to_string(fport) + "}";
}

std::string hex(const std::string& bytes) {
  std::string text;
  bytes_to_hex(bytes, text);
  return text;
}

std::string data_of(const std::string& downlink) {
  const std::string key = "\"data\":\"";
  const size_t at = downlink.find(key) + key.size();
  std::string bytes;
  hex_to_bytes(downlink.substr(at, downlink.find('"', at) - at), bytes);
  return bytes;
}

// The delete line comes first, the unlink right after it.
bool gone(const std::string& path) {
  for (int i = 0; i < 500 && path_exists(path); ++i) usleep(10 * 1000);
  return !path_exists(path);
}

class LoraLan : public testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(bus.start(why)) << why;
    ASSERT_TRUE(server.bound());
    lan = std::make_unique<CLoraLan>(bus.agent());
  }
  void TearDown() override {
    lan->stop();
    lan.reset();
    EXPECT_EQ(log.count_prefix("stop, lora_lan_thread did not end"), 0u) << "the loop slept through its stop";
  }
  void set(const std::string& key, const std::string& value) { ASSERT_TRUE(bus.set(key, value)) << key; }
  void start_bridge(const std::string& devices, const std::string& interval, size_t files) {
    set(kDevicesKey, devices);
    set(kIntervalKey, interval);
    ASSERT_EQ(lan->start(), 1) << log.dump();
    ASSERT_TRUE(wait_added(files)) << log.dump();
  }
  void notify_devices(const std::string& value) {
    int extra = 0;
    lan->config_change_callback(kDevicesKey, value, extra);
  }
  bool wait_added(size_t n) { return log.wait_for_prefix("threadProc, add device fd:", 5000, n); }
  size_t count_with(const std::string& prefix, const std::string& part) {
    size_t n = 0;
    for (const auto& line : log.lines()) n += line.text.rfind(prefix, 0) == 0 && line.text.find(part) != std::string::npos;
    return n;
  }
  void send_uplink(const std::string& text) { ASSERT_TRUE(server.send(LORA_LAN_LOCAL_PORT, text)); }
  // One write, read by the bridge before the next: one downlink each.
  void write_chunk(DeviceFile& file, const std::string& bytes) {
    const size_t before = log.count_prefix("recv_file, fd:");
    ASSERT_TRUE(file.write(bytes));
    ASSERT_TRUE(log.wait_for_prefix("recv_file, fd:", 5000, before + 1));
  }
  std::string next_downlink(int timeout_ms = 5000) { return server.receive(timeout_ms).value_or("(none)"); }

  // First, so it outlives every thread that may still log.
  tc_test::LogCaptureScope log;
  lora_test::TempDir dir;
  lora_test::ConfigBus bus;
  lora_test::UdpPeer server{LORA_LAN_SERVER_PORT};
  std::unique_ptr<CLoraLan> lan;
};

TEST_F(LoraLan, UplinksReachTheFilesTheirEuiAndFportAdmitAndDownlinksAreTheServersText) {
  const std::string a = dir.file("a");  // upFport 5
  const std::string b = dir.file("b");  // same EUI, every FPort
  const std::string c = dir.file("c");  // another EUI; confirmed downlinks on FPort 7
  start_bridge(list({item(a, kEui, ",\"upFport\":5"), item(b, kEuiUpper),
                     item(c, kOtherEui, ",\"upFport\":-1,\"downFport\":7,\"confirmed\":true")}),
               "0", 3);
  DeviceFile fa(a), fb(b), fc(c);

  send_uplink(uplink(kEuiUpper, "414243", 6));  // b only
  send_uplink(uplink(kEui, "44", 5));           // a and b
  send_uplink(uplink(kEui, "4d", 5, 4));        // confirmed: a and b
  send_uplink(uplink(kEui, "4e", 5, 3));        // a downlink type: refused
  send_uplink(uplink(kOtherEui, "00ff", 223));  // c
  send_uplink(uplink(kEui, "46", 224));
  send_uplink("{\"devEui\":\"" + kEui + "\",\"data\":\"47\",\"mtype\":\"2\",\"fport\":5}");
  send_uplink("{\"result\":7,\"devEui\":\"" + kEui + "\",\"data\":\"48\",\"mtype\":2,\"fport\":5}");
  send_uplink("{\"result\":0}");
  send_uplink("not json");
  send_uplink(uplink(kEui, "5a", 5));  // a and b
  send_uplink(uplink(kOtherEui, "5A", 1));
  EXPECT_EQ(fa.read(3, 5000), "DMZ");
  EXPECT_EQ(fb.read(6, 5000), "ABCDMZ");
  EXPECT_EQ(fc.read(3, 5000), std::string("\x00\xff" "Z", 3));
  EXPECT_EQ(fa.read_for(200) + fb.read_for(0) + fc.read_for(0), "") << "nothing else trails behind";
  EXPECT_EQ(log.count("recv_lora_message, lora format error fport:224"), 1u);
  EXPECT_EQ(log.count("recv_lora_message, lora format error mtype:3"), 1u);
  EXPECT_EQ(log.count("recv_lora_message, json format error devEui:" + kEui + " data:47 mtype:-1 fport:5"), 1u);
  EXPECT_EQ(log.count_prefix("recv_lora_message, send response error"), 1u);
  EXPECT_EQ(log.count("recv_lora_message, send response error result:7"), 1u);
  EXPECT_EQ(log.count_prefix("threadProc, recv_lora_message error, fd:"), 3u);  // the three refusals

  // The default downlink (FPort 10, unconfirmed) is shown end to end in tests/e2e.
  ASSERT_TRUE(fc.write("Hi"));
  EXPECT_EQ(next_downlink(), R"({"confirmed":"true","data":"4869","devEUI":"0102030405060708","fPort":"7","fcntd":"361"})");
}

TEST_F(LoraLan, DownlinksLeaveOnePerIntervalAndChangesApplyToTheNext) {
  const std::string path = dir.file("dev");
  start_bridge(list({item(path, kEui)}), "300", 1);
  DeviceFile file(path);
  for (const char* chunk : {"one", "two", "three"}) write_chunk(file, chunk);
  std::vector<steady_clock::time_point> arrivals;
  for (const char* chunk : {"one", "two", "three"}) {
    EXPECT_EQ(data_of(next_downlink()), chunk);
    arrivals.push_back(steady_clock::now());
  }
  for (size_t i = 1; i < arrivals.size(); ++i) {
    const auto gap = duration_cast<milliseconds>(arrivals[i] - arrivals[i - 1]).count();
    EXPECT_GE(gap, 280) << i;  // the tick moves in 10 ms steps
    EXPECT_LE(gap, 1500) << i;
  }

  const std::string changed = std::string("deal_down_packet_interval_change_config, ") + kIntervalKey + ":";
  // Applied here rather than over the bus: the bus worker logs the value before it stores it.
  int accepted = 0;
  lan->deal_down_packet_interval_change_config(kIntervalKey, "60000", accepted);
  EXPECT_EQ(accepted, 0);
  // Refusals of values that are not a number are in tests/e2e.
  write_chunk(file, "four");
  EXPECT_FALSE(server.receive(700)) << "held back by the long interval";
  set(kIntervalKey, "0");
  EXPECT_EQ(data_of(next_downlink(3000)), "four") << "the waiting one leaves at the next check";
  const auto four = steady_clock::now();
  set(kIntervalKey, "");  // 3500
  ASSERT_TRUE(log.wait_for(changed, 5000));
  write_chunk(file, "five");
  EXPECT_EQ(data_of(next_downlink(6000)), "five");
  const auto gap = duration_cast<milliseconds>(steady_clock::now() - four).count();
  EXPECT_GE(gap, 3400);
  EXPECT_LE(gap, 5000);
}

TEST_F(LoraLan, AFullQueueDropsItsOldestDownlink) {
  const std::string path = dir.file("dev");
  start_bridge(list({item(path, kEui)}), "600000", 1);
  DeviceFile file(path);
  const int kWrites = 40;
  for (int i = 0; i < kWrites; ++i) write_chunk(file, "m" + std::to_string(100 + i));
  set(kIntervalKey, "0");
  std::vector<std::string> sent;
  while (auto datagram = server.receive(1500)) sent.push_back(data_of(*datagram));

  const size_t evicted = log.count_prefix("send_lora_message, down packet queue too long");
  EXPECT_EQ(log.count("send_lora_message, down packet queue too long, size:32"), evicted) << "never above 32";
  EXPECT_EQ(sent.size() + evicted, static_cast<size_t>(kWrites));
  // The 32 newest survive, in order; only the first may have left before.
  ASSERT_GE(sent.size(), 32u);
  for (int k = 0; k < 32; ++k) EXPECT_EQ(sent[sent.size() - 32 + k], "m" + std::to_string(100 + kWrites - 32 + k));
}

TEST_F(LoraLan, BurstsOfUplinksAndLongWritesAreReadToTheEnd) {
  const std::string path = dir.file("dev");
  start_bridge(list({item(path, kEui)}), "0", 1);
  DeviceFile file(path);

  // Fifty datagrams behind one readiness edge.
  std::string expected;
  for (int i = 0; i < 50; ++i) {
    const std::string two = std::to_string(10 + i);
    send_uplink(uplink(kEui, hex(two), 9));
    expected += two;
  }
  EXPECT_EQ(file.read(expected.size(), 5000), expected);

  // 5000 bytes in one write: five reads and more behind one edge.
  std::string block;
  for (int i = 0; i < 5000; ++i) block.push_back(static_cast<char>(i * 7 + i / 256));
  ASSERT_TRUE(file.write(block));
  std::string carried;
  while (carried.size() < block.size()) {
    auto sent = server.receive(5000);
    ASSERT_TRUE(sent) << carried.size() << " of " << block.size() << " bytes came";
    EXPECT_LE(data_of(*sent).size(), 1024u);
    carried += data_of(*sent);
  }
  EXPECT_EQ(carried, block);
}

TEST_F(LoraLan, DeviceListChangesReplaceOnlyWhatChanged) {
  const std::string a = dir.file("a");
  const std::string b = dir.file("b");
  const std::string twin = item(a, kEui, ",\"upFport\":9");  // a's file and EUI again: no file of its own
  start_bridge(list({item(a, kEui), item(b, kOtherEui), twin, item(dir.file("none/x"), kEui)}), "0", 2);
  EXPECT_TRUE(log.wait_for("threadProc, create_device_file fail dev_file:" + dir.file("none/x"), 5000));
  EXPECT_EQ(count_with("threadProc, add device", "dev_file:" + a + ","), 1u);
  DeviceFile fa(a);

  // Only b's downFport changes: b is deleted and made again under its path.
  log.clear();
  notify_devices(list({item(a, kEui), item(b, kOtherEui, ",\"downFport\":11")}));
  ASSERT_TRUE(wait_added(1)) << log.dump();
  EXPECT_EQ(log.count_prefix("threadProc, delete device"), 1u) << log.dump();
  EXPECT_EQ(count_with("threadProc, delete device", "dev_file:" + b + ", dev_eui:" + kOtherEui + ", up_fport:-1, down_fport:10"), 1u);
  EXPECT_EQ(count_with("threadProc, add device", "dev_file:" + b + ", dev_eui:" + kOtherEui + ", up_fport:-1, down_fport:11"), 1u);
  DeviceFile fb(b);
  ASSERT_TRUE(fb.write("x"));
  EXPECT_EQ(next_downlink(), R"({"confirmed":"false","data":"78","devEUI":"0102030405060708","fPort":"11","fcntd":"361"})");
  ASSERT_TRUE(fa.write("y"));  // a kept its file all along
  EXPECT_EQ(data_of(next_downlink()), "y");

  // Not JSON leaves no devices; the RF key is not the bridge's.
  log.clear();
  int extra = 0;
  lan->config_change_callback("gw_tc_loralan_rf", "[]", extra);
  notify_devices("[{");
  ASSERT_TRUE(log.wait_for_prefix("threadProc, delete device", 5000, 2)) << log.dump();
  EXPECT_TRUE(log.contains("deal_device_change_config, convert to json fail."));
  EXPECT_TRUE(gone(a));
  EXPECT_TRUE(gone(b));

  notify_devices(list({item(a, kEui)}));
  ASSERT_TRUE(wait_added(1)) << log.dump();
  notify_devices("");
  ASSERT_TRUE(log.wait_for_prefix("threadProc, delete device", 5000, 3)) << log.dump();
  EXPECT_TRUE(gone(a));
}

TEST_F(LoraLan, FailedStartsHoldNothingAndTheRetrySucceeds) {
  const std::string path = dir.file("dev");
  set(kDevicesKey, "{\"devFile\":\"x\"}");
  EXPECT_EQ(lan->start(), 0);
  EXPECT_TRUE(log.contains("deal_device_change_config, config is not array format."));
  EXPECT_TRUE(log.contains("start, deal_device_change_config fail."));
  EXPECT_TRUE(udp_port_free(LORA_LAN_LOCAL_PORT));

  set(kDevicesKey, list({item(path, kEui), item("", kOtherEui), "{\"devFile\":\"" + path + "2\"}"}));
  log.clear();
  set(kIntervalKey, "250ms");  // leading digits count
  ASSERT_EQ(lan->start(), 1) << log.dump();
  EXPECT_TRUE(log.contains("start, create 127.0.0.1:18099 success"));
  EXPECT_EQ(log.count_prefix("deal_device_change_config, parameter error item[1]:"), 1u);
  EXPECT_EQ(log.count_prefix("deal_device_change_config, parameter error item[2]:"), 1u);
  EXPECT_TRUE(log.contains("deal_device_change_config, load device pair " + path + ":" + kEui + " -1 10 false"));
  ASSERT_TRUE(wait_added(1)) << log.dump();
  EXPECT_FALSE(udp_port_free(LORA_LAN_LOCAL_PORT));
  log.clear();
  EXPECT_EQ(lan->start(), 1);
  EXPECT_EQ(log.count_prefix("start,"), 0u) << "running: nothing read again";
}

TEST_F(LoraLan, StopEndsTheLoopAndALaterStartMakesTheFilesAgain) {
  const std::string path = dir.file("dev");
  start_bridge(list({item(path, kEui)}), "0", 1);
  lan->stop();
  EXPECT_TRUE(udp_port_free(LORA_LAN_LOCAL_PORT));
  EXPECT_TRUE(path_exists(path)) << "a stop keeps the paths";
  log.clear();
  set(kIntervalKey, "5");
  EXPECT_FALSE(log.wait_for_prefix("deal_down_packet_interval_change_config", 500)) << "unsubscribed";

  ASSERT_EQ(lan->start(), 1);
  ASSERT_TRUE(wait_added(1)) << log.dump();
  DeviceFile file(path);
  send_uplink(uplink(kEui, hex("again"), 3));
  EXPECT_EQ(file.read(5, 5000), "again");
}

}  // namespace
