// The LoRa LAN bridge and node provisioning with real parts: keys from
// "tc-config serve" on a private bus; tc-lora-sim plays the LAN server and
// the node service, cued through its input for the odd datagrams, answers
// and delays a gateway may meet; the user of the device files is the test
// (pseudo-terminals).

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "component/dbus_channel.h"
#include "service/common.h"
#include "service/lora_lan.h"
#include "service/lora_node.h"
#include "service/lora_node_request.h"
#include "tests/e2e/udp.h"
#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/device_file.h"
#include "tests/support/log_capture.h"

using namespace std::chrono;
using namespace Zentrova::Iot::TransparentChannel;
using namespace Zentrova::Iot::Component;
using tc_test::DeviceFile;
using tc_test::path_exists;

namespace {

const char* const kSelf = "iot.gateway.transparentchannel";
const char* const kDevicesKey = "gw_tc_loralan_devices";
const char* const kIntervalKey = "gw_tc_loralan_down_packet_interval";
const char* const kRfKey = "gw_tc_loralan_rf";
const std::string kEui = "00aa11bb22cc33dd";
const std::string kOtherEui = "0102030405060708";
const std::string kDefaultRf = R"(node set_rf RX2Frequency="486900000" TxPower="17" SF="7")";

bool port_free(uint16_t port) { return e2e::Udp(port).fd >= 0; }

std::string item(const std::string& file, const std::string& eui, const std::string& extra = "") {
  return "{\"devFile\":\"" + file + "\",\"devEUI\":\"" + eui + "\"" + extra + "}";
}

std::string nodes(int n) {
  std::string text;
  for (int i = 0; i < n; ++i) {
    char eui[17];
    snprintf(eui, sizeof eui, "%016x", i);
    text += std::string(i ? "," : "") + "{\"devEUI\":\"" + eui + "\",\"nwkskey\":\"k\",\"mode\":\"ABP\"}";
  }
  return "[" + text + "]";
}

// What follows `key` in `line`, up to `end`.
std::string between(const std::string& line, const std::string& key, const std::string& end) {
  const size_t at = line.find(key) + key.size();
  return line.substr(at, line.find(end, at) - at);
}

class Lora : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(daemon.start()) << daemon.error();
    manager = std::make_unique<tc_test::ChildProcess>(std::vector<std::string>{
        TC_BINARY_DIR "/tools/tc-config/tc-config", "serve", "--bus", daemon.address()});
    ASSERT_TRUE(manager->wait_for_line("ready on", 10000)) << manager->output();
    ASSERT_TRUE(sim.wait_for_line("ready:", 10000)) << sim.output();
    channel = std::make_unique<CDBusChannel>(daemon.address(), kSelf, "/iot/gateway/transparentchannel",
                                             std::vector<std::string>{});
    channel->register_signal("NameAcquired", CDBusSignalHandler());
    agent = std::make_unique<CConfigAgent>(channel.get(), kSelf);
    ASSERT_EQ(channel->start(), 1);
    lan = std::make_unique<CLoraLan>(agent.get());
    node = std::make_unique<CLoraNode>(agent.get());
  }
  void TearDown() override {
    lan.reset();  // the rest goes in the members' order
    EXPECT_EQ(log.count_prefix("stop, lora_lan_thread did not end"), 0u) << "the loop slept through its stop";
  }
  void set(const std::string& key, const std::string& value) {
    ASSERT_EQ(agent->set_config(key, value, 3000, false), 0) << key;
  }
  bool added(size_t n = 1) { return log.wait_for_prefix("threadProc, add device fd:", 5000, n); }
  void start_bridge(const std::string& devices, const std::string& interval, size_t files) {
    set(kDevicesKey, devices);
    set(kIntervalKey, interval);
    ASSERT_EQ(lan->start(), 1) << log.dump();
    ASSERT_TRUE(added(files)) << log.dump();
  }
  // A change as the bus worker hands it on (the node answers 1 when it took it).
  template <class Target>
  auto notify(Target& target, const std::string& key, const std::string& value) {
    int extra = 0;
    return target.config_change_callback(key, value, extra);
  }
  // Commands for the simulator, done when it has answered the "help" behind them.
  void cue(const std::string& commands) {
    ASSERT_TRUE(sim.write_input(commands + "help\n"));
    ASSERT_TRUE(sim.wait_for_line("commands: uplink", 5000, ++cues)) << sim.output();
  }
  // One write, read by the bridge before the next: one downlink each.
  void write_chunk(DeviceFile& file, const std::string& bytes) {
    const size_t before = log.count_prefix("recv_file, fd:");
    ASSERT_TRUE(file.write(bytes));
    ASSERT_TRUE(log.wait_for_prefix("recv_file, fd:", 5000, before + 1));
  }
  // The simulator's lines for the datagrams it received, once `n` came or in
  // `ms` (downlinks and node requests: a test meets only one kind).
  std::vector<std::string> received(size_t n, int ms = 5000) {
    sim.wait_for_line(" <= ", ms, n);
    std::vector<std::string> found;
    for (const auto& line : sim.lines()) {
      if (line.find(" <= ") != std::string::npos) found.push_back(line);
    }
    return found;
  }
  // What the `n`th datagram (from 1) carried, once it came; "(none)" if it did not.
  std::string shown(size_t n, int ms = 5000) {
    const auto lines = received(n, ms);
    return lines.size() < n ? "(none)" : between(lines[n - 1], " <= ", " -> ");
  }
  std::string downlink(size_t n, int ms = 5000) {
    std::string text = shown(n, ms);
    if (text != "(none)") hex_to_bytes(between(text, "\"data\":\"", "\""), text);
    return text;
  }

  tc_test::LogCaptureScope log;  // first: outlives every thread that may log
  tc_test::TempDir dir;
  tc_test::DBusDaemon daemon;
  std::unique_ptr<tc_test::ChildProcess> manager;
  tc_test::ChildProcess sim{{TC_BINARY_DIR "/tools/tc-lora-sim/tc-lora-sim", "--show-datagrams"}};
  size_t cues = 0;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CConfigAgent> agent;
  std::unique_ptr<CLoraLan> lan;
  std::unique_ptr<CLoraNode> node;
};

TEST_F(Lora, UplinksReachTheFilesTheirEuiAndFportAdmitAndDownlinksAreTheServersText) {
  const std::string a = dir.file("a"), b = dir.file("b"), c = dir.file("c");
  // a: FPort 5 only; b: the same EUI in capitals, every FPort; c: confirmed downlinks on FPort 7.
  start_bridge("[" + item(a, kEui, ",\"upFport\":5") + "," + item(b, "00AA11BB22CC33DD") + "," +
                   item(c, kOtherEui, ",\"upFport\":-1,\"downFport\":7,\"confirmed\":true") + "]",
               "0", 3);
  DeviceFile fa(a), fb(b), fc(c);
  const std::string up = "uplink " + kEui + " ", raw = "raw {\"devEui\":\"" + kEui + "\",";
  cue("uplink 00AA11BB22CC33DD 414243 6\n" + up + "44 5\n" + up + "4d 5 4\n" + up + "4e 5 3\n" + up + "58 0\n" +
      "uplink " + kOtherEui + " 00ff 223\n" + up + "46 224\n" + raw + "\"data\":\"47\",\"mtype\":\"2\",\"fport\":5}\n" +
      raw + "\"result\":7,\"data\":\"48\",\"mtype\":2,\"fport\":5}\nraw {\"result\":0}\nraw not json\n" + up +
      "5a 5\nuplink " + kOtherEui + " 5A 1\n");
  EXPECT_EQ(fa.read(3, 5000), "DMZ");  // mtype 4 (confirmed) taken, mtype 3 refused
  EXPECT_EQ(fb.read(6, 5000), "ABCDMZ");
  EXPECT_EQ(fc.read(3, 5000), std::string("\x00\xff" "Z", 3));
  EXPECT_EQ(fa.read_for(200) + fb.read_for(0) + fc.read_for(0), "") << "nothing else trails behind";
  for (const char* line : {"lora format error fport:224", "lora format error fport:0", "lora format error mtype:3",
                           "json format error devEui:00aa11bb22cc33dd data:47 mtype:-1 fport:5",
                           "send response error result:7"}) {
    EXPECT_EQ(log.count(std::string("recv_lora_message, ") + line), 1u) << line;
  }
  EXPECT_EQ(log.count_prefix("threadProc, recv_lora_message error, fd:"), 4u);  // the four refusals

  ASSERT_TRUE(fc.write("Hey?"));
  EXPECT_EQ(downlink(1), "Hey?");
  EXPECT_EQ(shown(1),
            R"({"confirmed":"true","data":"4865793f","devEUI":"0102030405060708","fPort":"7","fcntd":"361"})");

  // Fifty datagrams at once; 5000 bytes in one write, in pieces of at most 1024.
  std::string expected, hex, block, carried, commands;
  for (int i = 10; i < 60; ++i, hex.clear()) {
    bytes_to_hex(std::to_string(i), hex);
    commands += "uplink " + kOtherEui + " " + hex + " 9\n";
    expected += std::to_string(i);
  }
  cue(commands);
  EXPECT_EQ(fc.read(expected.size(), 5000), expected);
  for (int i = 0; i < 5000; ++i) block.push_back(static_cast<char>(i * 7 + i / 256));
  ASSERT_TRUE(fa.write(block));
  for (size_t n = 2; n < 7; ++n) {  // 4 x 1024 + 904
    carried += downlink(n);
    EXPECT_LE(carried.size(), 1024 * (n - 1));
  }
  EXPECT_EQ(carried, block);
}

TEST_F(Lora, DownlinksLeaveOnePerIntervalAndAFullQueueDropsItsOldest) {
  const std::string path = dir.file("dev");
  start_bridge("[" + item(path, kEui) + "]", "300", 1);
  DeviceFile file(path);
  for (const char* chunk : {"one", "two", "three"}) write_chunk(file, chunk);
  EXPECT_EQ(downlink(1), "one");
  const auto first = steady_clock::now();
  EXPECT_EQ(downlink(2), "two");
  EXPECT_EQ(downlink(3), "three");
  // two intervals, 10 ms ticks, and the way through the simulator's output on either side
  const auto span = duration_cast<milliseconds>(steady_clock::now() - first).count();
  EXPECT_TRUE(span >= 550 && span <= 2000) << span;
  const auto zero = steady_clock::now();
  set(kIntervalKey, "");  // 3500
  ASSERT_TRUE(log.wait_for_prefix(std::string("deal_down_packet_interval_change_config, ") + kIntervalKey, 5000));
  write_chunk(file, "four");
  EXPECT_EQ(downlink(4, 6000), "four");
  const auto gap = duration_cast<milliseconds>(steady_clock::now() - zero).count();
  EXPECT_TRUE(gap >= 3400 && gap <= 5000) << gap;

  // Applied here rather than over the bus: the bus worker logs the value before it stores it.
  int accepted = 0;
  lan->deal_down_packet_interval_change_config(kIntervalKey, "600000", accepted);
  EXPECT_EQ(accepted, 0);
  const int kWrites = 40;
  for (int i = 0; i < kWrites; ++i) write_chunk(file, "m" + std::to_string(100 + i));
  EXPECT_EQ(downlink(5, 700), "(none)") << "held back by the long interval";
  set(kIntervalKey, "0");  // the waiting ones leave from the next check
  for (int k = 0; k < 32; ++k) EXPECT_EQ(downlink(5 + k), "m" + std::to_string(100 + kWrites - 32 + k));
  EXPECT_EQ(downlink(37, 1500), "(none)");
  EXPECT_EQ(log.count("send_lora_message, down packet queue too long, size:32"), size_t{kWrites - 32});
}

TEST_F(Lora, DeviceListChangesReplaceOnlyWhatChanged) {
  const std::string a = dir.file("a"), b = dir.file("b");
  const std::string twin = item(a, kEui, ",\"upFport\":9");  // a's file and EUI again: no file of its own
  const std::string plain = dir.file("plain");  // never replaced by a link
  std::ofstream(plain) << "keep";
  start_bridge("[" + item(a, kEui) + "," + item(b, kOtherEui) + "," + twin + "," + item(plain, kEui) + "]", "0", 2);
  EXPECT_TRUE(log.wait_for("threadProc, create_device_file fail dev_file:" + plain, 5000));
  EXPECT_TRUE(log.contains("create_device_file, symlink error: File exists"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(plain).rdbuf()), {}), "keep");
  DeviceFile fa(a);

  log.clear();
  notify(*lan, kDevicesKey, "[" + item(a, kEui) + "," + item(b, kOtherEui, ",\"downFport\":11") + "]");
  ASSERT_TRUE(added()) << log.dump();
  EXPECT_EQ(log.count_prefix("threadProc, delete device") + log.count_prefix("threadProc, add device"), 2u);
  DeviceFile fb(b);
  ASSERT_TRUE(fb.write("x"));
  EXPECT_EQ(downlink(1), "x");
  EXPECT_EQ(shown(1), R"({"confirmed":"false","data":"78","devEUI":"0102030405060708","fPort":"11","fcntd":"361"})");
  ASSERT_TRUE(fa.write("y"));  // a kept its file all along
  EXPECT_EQ(downlink(2), "y");

  // Not JSON leaves no devices, nor does an empty value.
  log.clear();
  notify(*lan, kDevicesKey, "[{");
  ASSERT_TRUE(log.wait_for_prefix("threadProc, delete device", 5000, 2)) << log.dump();
  EXPECT_TRUE(log.contains("deal_device_change_config, convert to json fail."));
  notify(*lan, kDevicesKey, "[" + item(a, kEui) + "]");
  ASSERT_TRUE(added()) << log.dump();
  notify(*lan, kDevicesKey, "");
  ASSERT_TRUE(log.wait_for_prefix("threadProc, delete device", 5000, 3)) << log.dump();
  for (int i = 0; i < 500 && (path_exists(a) || path_exists(b)); ++i) usleep(10000);
  EXPECT_FALSE(path_exists(a) || path_exists(b));

  // A gateway's worth of devices, each with its own file.
  std::string many;
  for (int i = 0; i < 250; ++i) many += (i ? "," : "") + item(dir.file("n" + std::to_string(i)), kEui);
  log.clear();
  notify(*lan, kDevicesKey, "[" + many + "]");
  EXPECT_TRUE(added(250)) << log.count_prefix("threadProc, add device fd:");
  EXPECT_TRUE(path_exists(dir.file("n249")));
}

TEST_F(Lora, FailedLanStartsHoldNothingAndAStopKeepsThePathsForTheNextStart) {
  const std::string path = dir.file("dev");
  set(kDevicesKey, "{\"devFile\":\"x\"}");
  EXPECT_EQ(lan->start(), 0);
  EXPECT_TRUE(log.contains("deal_device_change_config, config is not array format."));
  EXPECT_TRUE(port_free(LORA_LAN_LOCAL_PORT));

  set(kDevicesKey, "[" + item(path, kEui) + "," + item("", kOtherEui) + ",{\"devFile\":\"" + path + "2\"}]");
  set(kIntervalKey, "250ms");  // leading digits count
  ASSERT_EQ(lan->start(), 1) << log.dump();
  EXPECT_EQ(log.count_prefix("deal_device_change_config, parameter error item["), 2u);
  EXPECT_TRUE(log.contains("deal_device_change_config, load device pair " + path + ":" + kEui + " -1 10 false"));
  ASSERT_TRUE(added()) << log.dump();
  log.clear();
  EXPECT_EQ(lan->start(), 1);
  EXPECT_EQ(log.count_prefix("start,"), 0u) << "running: nothing read again";

  lan->stop();
  EXPECT_TRUE(port_free(LORA_LAN_LOCAL_PORT) && path_exists(path));
  set(kIntervalKey, "5");
  EXPECT_FALSE(log.wait_for_prefix("deal_down_packet_interval_change_config", 500)) << "unsubscribed";
  ASSERT_EQ(lan->start(), 1);
  ASSERT_TRUE(added()) << log.dump();
  DeviceFile file(path);
  cue("uplink " + kEui + " 616761696e 3\n");
  EXPECT_EQ(file.read(5, 5000), "again");
}

TEST_F(Lora, NodeStartSendsTheConfiguredRfThenTheNodeListAndARefusalReleasesTheSocket) {
  set(kDevicesKey, nodes(1));
  cue("node-once {\"result\":4}\n");
  EXPECT_EQ(node->start(), 0);
  EXPECT_EQ(received(1).size(), 1u) << "sync 0 only";
  EXPECT_TRUE(log.contains("start, deal_node_change_config fail."));
  EXPECT_TRUE(port_free(LORA_NODE_LOCAL_PORT));
  set(kRfKey, "{");
  EXPECT_EQ(node->start(), 0);
  EXPECT_TRUE(log.contains("deal_rf_change_config, string_to_json fail."));

  set(kRfKey, R"({"class-c":{"RX2Frequency":"868100000","TxPower":"20","SF":"9"}})");
  set(kDevicesKey, R"([{"devFile":"/dev/lora0","devEUI":"00aa11bb22cc33dd","devAddr":"0a0b0c0d","nwkskey":"ab",)"
                   R"("appskey":"cd","mode":"abp"},{"devFile":"/dev/lora1","devEUI":"0102"}])");
  EXPECT_EQ(node->start(), 1) << log.dump();
  EXPECT_EQ(shown(2), R"({"class-c":{"RX2Frequency":"868100000","SF":"9","TxPower":"20"},"method":"set_rf"})");
  EXPECT_EQ(shown(3), R"({"loranode":[],"method":"sync"})");
  EXPECT_EQ(shown(4), R"({"loranode":[{"appskey":"CD","devAddr":"0A0B0C0D","devEui":"00AA11BB22CC33DD",)"
            R"("mode":"ABP","nwkskey":"AB"},{"appskey":"","devAddr":"","devEui":"0102",)"
            R"("mode":"","nwkskey":""}],"method":"sync"})");
  EXPECT_TRUE(node->rf_ready());
  EXPECT_TRUE(log.contains("sync_abp_node, count:2, response:{\"result\":0}"));
  node->close_socket();
  EXPECT_TRUE(port_free(LORA_NODE_LOCAL_PORT));

  // Without the configuration manager the start fails; requests fail on the closed socket.
  manager.reset();
  EXPECT_EQ(node->start(), 0);
  EXPECT_TRUE(log.contains("start, get config [gw_tc_loralan_rf] fail."));
  EXPECT_EQ(notify(*node, kRfKey, ""), 0);
  EXPECT_TRUE(log.contains("udp_node_send_and_recv, send_udp fail, iret:-1"));
}

TEST_F(Lora, NodeChangesSendRfDefaultsForAnEmptyValueListsInBatchesOfAHundredAndDropALateAnswer) {
  EXPECT_EQ(node->start(), 1);
  EXPECT_EQ(received(1, 300).size(), 0u) << "empty values send nothing at start";
  const std::string ok = "node-once {\"result\":0}\n", sync0 = "node sync count=0 devEui= ",
                    sync100 = "node sync count=100 devEui=0000000000000000,";
  const struct {
    const char* key;
    std::string value, cue;  // the node service's answers, cued
    std::vector<std::string> requests;  // the start of each request's line
    int result;  // device lists answer 0 whatever happens
    int ms = 0;  // how long the bridge waits, when it must
  } cases[] = {
      // Silent past the bridge's 10 s, then too late: that answer must not pass for the next one.
      {kRfKey, "", "node-delay 10500\nnode-once {\"result\":9}\n", {kDefaultRf}, 0, 10000},
      {kRfKey, "", "node-delay 0\n", {kDefaultRf}, 1},
      {kRfKey, R"({"class-c":{"RX2Frequency":"868500000","SF":9}})", "node-once {\"answer\":0}\n",
       {R"(node set_rf RX2Frequency="868500000" TxPower="" SF="")"}, 0},
      {kRfKey, "", "node-once busy\n", {kDefaultRf}, 0},
      {kRfKey, "class-c", "", {}, 0},
      {kDevicesKey, nodes(100), ok + ok, {sync0, sync100}, 0},
      {kDevicesKey, "[]", ok, {sync0}, 0},
      {kDevicesKey, "", ok, {sync0}, 0},
      {kDevicesKey, R"({"devEUI":"01"})", "", {}, 0},
      {kDevicesKey, nodes(250), ok + "node-once {\"result\":3}\n", {sync0, sync100}, 0},
      {kDevicesKey, nodes(250), ok + ok + "node-once {}\n",
       {sync0, sync100, "node add count=100 devEui=0000000000000064,"}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value.substr(0, 60));
    const size_t before = received(0).size();
    cue(c.cue);
    const auto begin = steady_clock::now();
    EXPECT_EQ(notify(*node, c.key, c.value), c.result);
    const auto waited = duration_cast<milliseconds>(steady_clock::now() - begin).count();
    EXPECT_TRUE(!c.ms || (waited >= c.ms - 100 && waited <= c.ms + 2000)) << waited;
    ASSERT_TRUE(!c.ms || sim.wait_for_line("late answer sent", 5000)) << sim.output();
    const auto sent = received(before + c.requests.size());
    ASSERT_EQ(sent.size(), before + c.requests.size()) << sim.output();
    for (size_t i = 0; i < c.requests.size(); ++i) {
      EXPECT_EQ(sent[before + i].rfind(c.requests[i], 0), 0u) << sent[before + i];
    }
  }
  for (const char* line : {"set_rf, udp_node_send_and_recv fail", "set_rf, result:-100",
                           "set_rf, string_to_json fail, str_response:busy",
                           "deal_node_change_config, config is not array format.",
                           "deal_node_change_config, sync_abp_node fail",
                           "deal_node_change_config, add_abp_node fail"}) {
    EXPECT_EQ(log.count(line), 1u) << line;
  }
  EXPECT_FALSE(node->rf_ready());
}

}  // namespace
