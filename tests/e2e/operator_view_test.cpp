// Traffic through a running service, and what an operator sees of it.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "tests/e2e/gateway.h"

using namespace e2e;

namespace {

const std::string kBusctl = "/usr/bin/busctl";
const std::string kAddress = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
const std::string kName = "iot.gateway.transparentchannel";
const std::string kPath = "/iot/gateway/transparentchannel";

// busctl and tc-status print columns of their own: compare words.
std::string words(const std::string& text) {
  std::stringstream in(text);
  std::string word, out;
  while (in >> word) out += (out.empty() ? "" : " ") + word;
  return out;
}

// What went through a serial link and a LoRa device, refusals and a drop of
// the link included, as the LoRa simulator and the far end saw it, and as
// the operator sees it: a standard bus tool lists the methods, tc-status
// shows every counter in its column.
TEST(OperatorView, TrafficBothWaysAndWhatTheOperatorSeesOfIt) {
  Gateway gw;
  RemotePort port;
  const std::string serial = gw.path("ttyV1"), lora = gw.path("lora1");
  std::string lora_item = lora_device(lora, kEui);
  lora_item.insert(1, "\"upFport\":5,");
  ASSERT_TRUE(gw.start_all({{"gw_tc_serial_devices", json_array({serial_device(serial, "127.0.0.2", port.path())})},
                            {"gw_tc_loralan_devices", json_array({lora_item})},
                            {"gw_tc_loralan_rf", kRf},
                            {"gw_tc_loralan_down_packet_interval", "60000"}}))
      << gw.error();
  ASSERT_TRUE(gw.wait_status(status_line(serial, "127.0.0.2", port.path(), true)));

  const std::string busctl = words(run({kBusctl, "--address=" + kAddress, "introspect", kName, kPath}));
  for (const char* method : {".notify_config method ss i", ".serial_port_connect_status method - s",
                             ".channel_statistics method - s", ".Introspect method - s", ".GetMachineId method - s",
                             ".Ping method - -"}) {  // name, kind, arguments, results
    EXPECT_NE(busctl.find(method), std::string::npos) << method << "\n" << busctl;
  }
  const std::string id =
      run({kBusctl, "--address=" + kAddress, "call", kName, kPath, "org.freedesktop.DBus.Peer", "GetMachineId"});
  EXPECT_TRUE(id.rfind("s \"", 0) == 0 && id.find_first_not_of("0123456789abcdef", 3) == 35 && id.size() == 37) << id;

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
  // A write goes down as one datagram, in lower-case hex.
  ASSERT_TRUE(lora_file.write(std::string("down\0\xff\x7f", 7)));
  EXPECT_TRUE(gw.lora_sim().wait_for_line(R"(downlink devEUI="00AA11BB22CC33DD" fPort="10" confirmed="false" fcntd="361" )"
                                          R"(data="646f776e00ff7f" (7 bytes "down\x00\xff\x7f") -> result 0)", kWaitMs))
      << gw.lora_sim().output();
  // The next waits out the interval: queued and sent differ in the counters.
  ASSERT_TRUE(lora_file.write("later"));

  // A keep-alive comes every second; then the peer goes away.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ASSERT_TRUE(gw.serial_peer().signal(SIGKILL));
  ASSERT_TRUE(gw.service().wait_for_line("deal error, " + serial, kWaitMs)) << gw.service().output();

  // Off a terminal, no colour codes.  Columns: state and for how long, bytes/frames
  // to the peer and to the device, connects, drops, the last keep-alive, why the
  // drop; uplinks, refused, downlinks queued, sent, dropped, queue depth.
  const std::string table = run({TC_BINARY_DIR "/tools/tc-status/tc-status"});
  EXPECT_EQ(table.find('\033'), std::string::npos) << table;
  for (const std::string& cells : std::vector<std::string>{serial + " 127.0.0.2:" + port.path() + " not connected ", " 5/1 7/1 1 1 ",
                                    " ago deal message, connection closed by the peer, fd:%d",
                                    lora + " 00AA11BB22CC33DD 2 1 2 1 0 1 uplink FPort is not its upFport",
                                    "node service: rf set_rf, result 0 (", " ago); abp sync of 1 nodes, result 0 ("}) {
    EXPECT_NE(words(table).find(cells), std::string::npos) << cells << "\n" << table;
  }
  expect_bounded_stop(gw);
}

}  // namespace
