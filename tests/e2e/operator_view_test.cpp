// Traffic through a running service, and what an operator sees of it.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>

#include "common/json/json_text.h"
#include "tests/e2e/gateway.h"

using namespace e2e;

namespace {

const std::string kStatusTool = TC_BINARY_DIR "/tools/tc-status/tc-status";
const std::string kAddress = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
const std::string kName = "iot.gateway.transparentchannel";
const std::string kPath = "/iot/gateway/transparentchannel";

// busctl prints columns and line breaks of its own: compare words.
std::string words(const std::string& text) {
  std::stringstream in(text);
  std::string word, out;
  while (in >> word) out += (out.empty() ? "" : " ") + word;
  return out;
}

// What went through a serial link and a LoRa device, refusals and a drop of
// the link included, as the LoRa simulator and the far end saw it, and as
// the operator sees it: a standard bus tool lists the methods, tc-status
// shows every counter.
TEST(OperatorView, TrafficBothWaysAndWhatTheOperatorSeesOfIt) {
  Gateway gw;
  RemotePort port;
  const std::string serial = gw.path("ttyV1"), lora = gw.path("lora1");
  std::string lora_item = lora_device(lora, kEui);
  lora_item.insert(1, "\"upFport\":5,");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", json_array({serial_device(serial, "127.0.0.2", port.path())})},
                            {"gw_tc_loralan_devices", json_array({lora_item})},
                            {"gw_tc_loralan_rf", kRf},
                            {"gw_tc_loralan_down_packet_interval", "100"}}))
      << gw.error();
  std::string last;
  ASSERT_TRUE(gw.wait_status(status_line(serial, "127.0.0.2", port.path(), true), kWaitMs, &last)) << last;

  const std::string busctl = words(run({on_path("busctl"), "--address=" + kAddress, "introspect", kName, kPath}));
  for (const char* method : {".notify_config method ss i", ".serial_port_connect_status method - s",
                             ".channel_statistics method - s", ".Introspect method - s", ".GetMachineId method - s",
                             ".Ping method - -"}) {  // name, kind, arguments, results
    EXPECT_NE(busctl.find(method), std::string::npos) << method << "\n" << busctl;
  }
  const std::string id =
      run({on_path("busctl"), "--address=" + kAddress, "call", kName, kPath, "org.freedesktop.DBus.Peer", "GetMachineId"});
  EXPECT_EQ(id.rfind("s \"", 0), 0u) << id;
  EXPECT_EQ(id.size(), 3 + 32 + 2u) << id;  // s "<32 hex digits>"

  DeviceFile device(serial);
  ASSERT_TRUE(device.write("hello"));
  EXPECT_EQ(port.read(5, kWaitMs), "hello");
  ASSERT_TRUE(port.write("goodbye"));
  EXPECT_EQ(device.read(7, kWaitMs), "goodbye");

  DeviceFile lora_file(lora);
  // A confirmed uplink sent as an operator would, then one the device's
  // upFport refuses, seen only in the counters and in what comes next.
  // (Exact datagrams, every mtype and byte value: the bridge's own tests.)
  run({TC_BINARY_DIR "/tools/tc-lora-sim/tc-lora-sim", "uplink", "00AA11BB22CC33DD", hex("Hello"), "5", "4"});
  EXPECT_EQ(lora_file.read(5, kWaitMs), "Hello");
  ASSERT_TRUE(gw.lora_sim().write_input("uplink " + std::string(kEui) + " " + hex("fport") + " 6 2\nuplink " + kEui +
                                        " " + hex("after") + " 5 2\n"));
  EXPECT_EQ(lora_file.read(5, kWaitMs), "after");
  // A write goes down as one datagram.
  const std::string down = std::string("down\0\xff\x7f", 7);
  ASSERT_TRUE(lora_file.write(down));
  const std::string shown = "data=\"" + hex(down) + "\" (7 bytes";
  ASSERT_TRUE(gw.lora_sim().wait_for_line(shown, kWaitMs)) << gw.lora_sim().output();
  const auto lines = gw.lora_sim().lines();
  const std::string& line = lines[static_cast<size_t>(find_line(lines, shown))];
  EXPECT_EQ(line.rfind(R"(downlink devEUI="00AA11BB22CC33DD" fPort="10" confirmed="false" )", 0), 0u) << line;
  EXPECT_NE(line.find("-> result 0"), std::string::npos) << line;

  // A keep-alive comes every second; then the peer goes away.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ASSERT_TRUE(gw.serial_peer().signal(SIGKILL));
  ASSERT_TRUE(gw.service().wait_for_line("deal error, " + serial, kWaitMs)) << gw.service().output();

  Json::Value stats;
  const std::string json = run({kStatusTool, "--json"});
  ASSERT_TRUE(Zentrova::Iot::Platform::string_to_json(json, stats)) << json;
  ASSERT_EQ(stats["serial"].size(), 1u) << json;
  ASSERT_EQ(stats["lora"].size(), 1u) << json;
  const Json::Value &link = stats["serial"][0], &lan = stats["lora"][0];
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
      {lan, "dev_eui", "00AA11BB22CC33DD"},
      {lan, "uplinks", 2},
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
  // In the present state since the drop, the last keep-alive before it.
  EXPECT_LT(link["state_ms"].asInt64(), kWaitMs) << json;
  EXPECT_GE(link["keepalive_ms"].asInt64(), 0) << json;
  EXPECT_LT(link["keepalive_ms"].asInt64(), 3000 * kSlowdown) << json;

  // The table: one line per device, no colour codes off a terminal.
  const std::string table = run({kStatusTool});
  EXPECT_NE(table.find(serial), std::string::npos) << table;
  EXPECT_NE(table.find(lora), std::string::npos) << table;
  EXPECT_EQ(table.find('\033'), std::string::npos) << table;
  expect_bounded_stop(gw);
}

}  // namespace
