// What an operator sees of a running service: the standard bus tools list
// its methods, and tc-status shows every link's counters.  Isolated: the bus
// path and the ports are fixed.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/json/json_text.h"
#include "tests/e2e/gateway.h"
#include "tests/e2e/remote_port.h"

using e2e::Gateway;
using lora_test::DeviceFile;

namespace {

const std::string kStatusTool = TC_BINARY_DIR "/tools/tc-status/tc-status";
const std::string kAddress = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
const std::string kName = "iot.gateway.transparentchannel";
const std::string kPath = "/iot/gateway/transparentchannel";
const char* const kEui = "00AA11BB22CC33DD";
const int kWaitMs = 10000 * e2e::kSlowdown;

// A program from the PATH: ChildProcess runs programs by their full name.
std::string on_path(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
  }
  return "/usr/bin/" + name;
}

// Runs a command to its end; its output, with the exit status 0 expected.
std::string run(const std::vector<std::string>& argv) {
  tc_test::ChildProcess command(argv);
  int status = -1;
  EXPECT_TRUE(command.wait_exit(kWaitMs, &status)) << argv[0];
  EXPECT_EQ(tc_test::exit_code(status), 0) << argv[0] << ": " << command.output();
  return command.output();
}

TEST(OperatorView, StandardBusToolsListTheMethodsAndTheMachineId) {
  Gateway gw;
  ASSERT_TRUE(gw.start_all({})) << gw.error();

  const std::string busctl = run({on_path("busctl"), "--address=" + kAddress, "introspect", kName, kPath});
  const std::string gdbus = run({on_path("gdbus"), "introspect", "--address", kAddress, "--dest", kName,
                                 "--object-path", kPath});
  const struct {
    const char* busctl;  // name, kind, arguments, results
    const char* gdbus;
  } methods[] = {
      {"notify_config method ss i", "notify_config(in s arg_0, in s arg_1, out i arg_2);"},
      {"serial_port_connect_status method - s", "serial_port_connect_status(out s arg_0);"},
      {"channel_statistics method - s", "channel_statistics(out s arg_0);"},
      {"Introspect method - s", "Introspect(out s xml_data);"},
      {"GetMachineId method - s", "GetMachineId(out s machine_uuid);"},
      {"Ping method - -", "Ping();"},
  };
  // Both print columns and line breaks of their own: compare words.
  auto words = [](const std::string& text) {
    std::stringstream in(text);
    std::string word, out;
    while (in >> word) out += (out.empty() ? "" : " ") + word;
    return out;
  };
  for (const auto& m : methods) {
    EXPECT_NE(words(busctl).find(std::string(".") + m.busctl), std::string::npos) << m.busctl << "\n" << busctl;
    EXPECT_NE(words(gdbus).find(m.gdbus), std::string::npos) << m.gdbus << "\n" << gdbus;
  }

  const std::string id = run({on_path("busctl"), "--address=" + kAddress, "call", kName, kPath,
                              "org.freedesktop.DBus.Peer", "GetMachineId"});
  EXPECT_EQ(id.rfind("s \"", 0), 0u) << id;
  EXPECT_EQ(id.size(), 3 + 32 + 2u) << id;  // s "<32 hex digits>"
  e2e::expect_bounded_stop(gw);
}

// Known bytes both ways through a serial link and a LoRa device, one refused
// uplink, one drop of the link: every counter shows in tc-status --json.
TEST(OperatorView, TcStatusShowsWhatMovedAndWhyTheLinkDropped) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  const std::string serial = gw.path("ttyV1"), lora = gw.path("lora1");
  std::string lora_item = e2e::lora_device(lora, kEui);
  lora_item.insert(1, "\"upFport\":5,");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", e2e::json_array({e2e::serial_device(serial, "127.0.0.2",
                                                                                          port.path())})},
                            {"gw_tc_loralan_devices", e2e::json_array({lora_item})},
                            {"gw_tc_loralan_rf", R"({"class-c":{"RX2Frequency":"486900000","TxPower":"17","SF":"7"}})"},
                            {"gw_tc_loralan_down_packet_interval", "100"}}))
      << gw.error();
  std::string last;
  ASSERT_TRUE(gw.wait_status(e2e::status_line(serial, "127.0.0.2", port.path(), true), kWaitMs, &last)) << last;

  DeviceFile device(serial);
  ASSERT_TRUE(device.write("hello"));
  EXPECT_EQ(port.read(5, kWaitMs), "hello");
  ASSERT_TRUE(port.write("goodbye"));
  EXPECT_EQ(device.read(7, kWaitMs), "goodbye");

  DeviceFile lora_file(lora);
  ASSERT_TRUE(gw.lora_sim().write_input(std::string("uplink ") + kEui + " 010203 5\n"));
  EXPECT_EQ(lora_file.read(3, kWaitMs), "\x01\x02\x03");
  ASSERT_TRUE(gw.lora_sim().write_input(std::string("uplink ") + kEui + " 0405 6\n"));
  ASSERT_TRUE(lora_file.write("down"));
  ASSERT_TRUE(gw.lora_sim().wait_for_line("data=\"646f776e\"", kWaitMs)) << gw.lora_sim().output();

  // A keep-alive comes every second; then the peer goes away.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ASSERT_TRUE(gw.serial_peer().signal(SIGKILL));
  ASSERT_TRUE(gw.service().wait_for_line("deal error, " + serial, kWaitMs)) << gw.service().output();

  Json::Value stats;
  const std::string json = run({kStatusTool, "--json"});
  ASSERT_TRUE(Zentrova::Iot::Platform::string_to_json(json, stats)) << json;
  ASSERT_EQ(stats["serial"].size(), 1u) << json;
  ASSERT_EQ(stats["lora"].size(), 1u) << json;
  const Json::Value& link = stats["serial"][0];
  const Json::Value& lan = stats["lora"][0];
  const struct {
    const Json::Value& item;
    const char* member;
    Json::Value expected;
  } counters[] = {
      {link, "local_device", serial},
      {link, "state", "not connected"},
      {link, "bytes_to_peer", 5},
      {link, "frames_to_peer", 1},
      {link, "bytes_to_device", 7},
      {link, "frames_to_device", 1},
      {link, "connects", 1},
      {link, "drops", 1},
      {link, "last_drop", "deal message, connection closed by the peer, fd:%d"},
      {lan, "dev_file", lora},
      {lan, "dev_eui", kEui},
      {lan, "uplinks", 1},
      {lan, "uplinks_refused", 1},
      {lan, "last_refusal", "uplink FPort is not its upFport"},
      {lan, "downlinks_queued", 1},
      {lan, "downlinks_sent", 1},
      {lan, "downlinks_dropped", 0},
      {lan, "queue_depth", 0},
      {stats["node"]["rf"], "result", 0},
      {stats["node"]["abp"], "request", "sync"},
      {stats["node"]["abp"], "nodes", 1},
      {stats["node"]["abp"], "result", 0},
  };
  for (const auto& c : counters) EXPECT_EQ(c.item[c.member], c.expected) << c.member << "\n" << json;
  // The time figures: in the present state since the drop, the last
  // keep-alive before it.
  EXPECT_LT(link["state_ms"].asInt64(), kWaitMs) << json;
  EXPECT_GE(link["keepalive_ms"].asInt64(), 0) << json;
  EXPECT_LT(link["keepalive_ms"].asInt64(), 3000 * e2e::kSlowdown) << json;

  // The table: one line per device, no colour codes off a terminal.
  const std::string table = run({kStatusTool});
  EXPECT_NE(table.find(serial), std::string::npos) << table;
  EXPECT_NE(table.find(lora), std::string::npos) << table;
  EXPECT_EQ(table.find('\033'), std::string::npos) << table;
  e2e::expect_bounded_stop(gw);
}

}  // namespace
