// tc-lora-sim used as a user would: run as a program, fed on its standard
// input, watched on its output, talked to over real UDP; and in front of the
// real LoRa LAN bridge and node provisioning.

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "service/lora_lan.h"
#include "service/lora_node.h"
#include "tests/service/lora_test_support.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using lora_test::UdpPeer;
using tc_test::ChildProcess;

namespace {

const std::string kSim = TC_BINARY_DIR "/tools/tc-lora-sim/tc-lora-sim";
const uint16_t kLanServer = 18098;
const uint16_t kBridge = 18099;
const uint16_t kNodeService = 16058;
const uint16_t kNodeClient = 16068;

int run(const std::vector<std::string>& args, std::string* output = nullptr) {
  std::vector<std::string> argv{kSim};
  argv.insert(argv.end(), args.begin(), args.end());
  ChildProcess tool(argv);
  int status = 0;
  EXPECT_TRUE(tool.wait_exit(10000, &status));
  if (output) *output = tool.output();
  return tc_test::exit_code(status);
}

std::unique_ptr<ChildProcess> start_sim(const std::vector<std::string>& args = {}) {
  std::vector<std::string> argv{kSim};
  argv.insert(argv.end(), args.begin(), args.end());
  auto sim = std::make_unique<ChildProcess>(argv);
  EXPECT_TRUE(sim->wait_for_line("ready:", 10000)) << sim->output();
  return sim;
}

TEST(TcLoraSim, HelpAndUsageErrors) {
  std::string out;
  EXPECT_EQ(run({"--help"}, &out), 0);
  EXPECT_NE(out.find("tc-lora-sim uplink EUI HEX FPORT [MTYPE]"), std::string::npos) << out;
  EXPECT_EQ(run({"--bogus"}, &out), 2);
  EXPECT_NE(out.find("unknown argument --bogus"), std::string::npos) << out;
  EXPECT_EQ(run({"--lan-result", "zero"}), 2);
  EXPECT_EQ(run({"uplink", "00aa", "41", "five"}), 2);
}

TEST(TcLoraSim, ServesBothServicesAndTakesCommands) {
  UdpPeer bridge(kBridge);
  UdpPeer node(kNodeClient);
  ASSERT_TRUE(bridge.bound() && node.bound());
  auto sim = start_sim();

  ASSERT_TRUE(bridge.send(kLanServer, R"({"confirmed":"false","data":"48656c6c6f","devEUI":"00AA11BB22CC33DD",)"
                                      R"("fPort":"10","fcntd":"361"})"));
  EXPECT_EQ(bridge.receive(5000).value_or("none"), "{\"result\":0}");
  EXPECT_TRUE(sim->wait_for_line(R"(downlink devEUI="00AA11BB22CC33DD" fPort="10" confirmed="false" fcntd="361" )"
                                 R"(data="48656c6c6f" (5 bytes "Hello") -> result 0)",
                                 5000))
      << sim->output();

  ASSERT_TRUE(node.send(kNodeService, R"({"class-c":{"RX2Frequency":"486900000","SF":"","TxPower":17},"method":"set_rf"})"));
  EXPECT_EQ(node.receive(5000).value_or("none"), "{\"result\":0}");
  EXPECT_TRUE(sim->wait_for_line(R"(node set_rf RX2Frequency="486900000" TxPower=17 SF="" -> result 0)", 5000))
      << sim->output();
  ASSERT_TRUE(node.send(kNodeService, R"({"loranode":[{"devEui":"AA"},{"devEui":"BB"}],"method":"add"})"));
  EXPECT_EQ(node.receive(5000).value_or("none"), "{\"result\":0}");
  EXPECT_TRUE(sim->wait_for_line("node add count=2 devEui=AA,BB -> result 0", 5000)) << sim->output();

  // Uplinks on request, integers as integers.
  ASSERT_TRUE(sim->write_input("uplink 00aa11bb22cc33dd 48656c6c6f 5\nuplink 0102 4g1 223 4\nuplink 0102 41\n"));
  EXPECT_EQ(bridge.receive(5000).value_or("none"), R"({"data":"48656c6c6f","devEui":"00aa11bb22cc33dd","fport":5,"mtype":2})");
  EXPECT_EQ(bridge.receive(5000).value_or("none"), R"({"data":"4g1","devEui":"0102","fport":223,"mtype":4})");
  EXPECT_TRUE(sim->wait_for_line("error: usage: uplink EUI HEX FPORT [MTYPE]", 5000)) << sim->output();
  EXPECT_FALSE(bridge.receive(200));

  // Other answers, and none.
  ASSERT_TRUE(sim->write_input("lan-result 7\nnode-result silent\n"));
  ASSERT_TRUE(sim->wait_for_line("node requests now get no answer", 5000)) << sim->output();
  ASSERT_TRUE(bridge.send(kLanServer, R"({"data":"41"})"));
  EXPECT_EQ(bridge.receive(5000).value_or("none"), "{\"result\":7}");
  EXPECT_TRUE(sim->wait_for_line(R"(downlink devEUI=- fPort=- confirmed=- fcntd=- data="41" (1 byte "A") -> result 7)",
                                 5000))
      << sim->output();
  ASSERT_TRUE(node.send(kNodeService, "not json"));
  EXPECT_TRUE(sim->wait_for_line("node (not a JSON object) not json -> no answer", 5000)) << sim->output();
  EXPECT_FALSE(node.receive(300));

  // The end of input leaves the services up; a signal ends them.
  sim->close_input();
  ASSERT_TRUE(bridge.send(kLanServer, "{}"));
  EXPECT_TRUE(bridge.receive(5000));
  ASSERT_TRUE(sim->signal(SIGTERM));
  int status = 0;
  ASSERT_TRUE(sim->wait_exit(5000, &status));
  EXPECT_EQ(tc_test::exit_code(status), 0);
}

TEST(TcLoraSim, FlagsChooseTheAnswersAndOneShotUplinksNeedNoServer) {
  UdpPeer bridge(kBridge);
  UdpPeer node(kNodeClient);
  auto sim = start_sim({"--lan-silent", "--node-result", "-3"});
  ASSERT_TRUE(bridge.send(kLanServer, R"({"data":"00"})"));
  EXPECT_TRUE(sim->wait_for_line("-> no answer", 5000)) << sim->output();
  EXPECT_FALSE(bridge.receive(300));
  ASSERT_TRUE(node.send(kNodeService, R"({"loranode":[],"method":"sync"})"));
  EXPECT_EQ(node.receive(5000).value_or("none"), "{\"result\":-3}");

  std::string out;
  EXPECT_EQ(run({"uplink", "00AA", "0aff", "7", "2"}, &out), 0);
  EXPECT_EQ(bridge.receive(5000).value_or("none"), R"({"data":"0aff","devEui":"00AA","fport":7,"mtype":2})");
  EXPECT_NE(out.find("sent uplink devEui=00AA fport=7 mtype=2 data=0aff"), std::string::npos) << out;

  // The ports are its own: a second simulator says so and ends.
  EXPECT_EQ(run({}, &out), 1);
  EXPECT_NE(out.find("bind 127.0.0.1:18098"), std::string::npos) << out;
}

// What an operator sees on a gateway: device file bytes become a downlink
// line, an uplink command's payload comes out of the device file, and the
// node provisioning shows up as requests.
TEST(TcLoraSim, InFrontOfTheBridgeAndTheProvisioning) {
  tc_test::LogCaptureScope log;
  lora_test::TempDir dir;
  lora_test::ConfigBus bus;
  std::string why;
  ASSERT_TRUE(bus.start(why)) << why;
  auto sim = start_sim();
  const std::string path = dir.file("lora0");
  ASSERT_TRUE(bus.set("gw_tc_loralan_devices",
                      "[{\"devFile\":\"" + path + "\",\"devEUI\":\"00aa11bb22cc33dd\",\"upFport\":5,\"devAddr\":\"0a0b0c0d\"}]"));
  ASSERT_TRUE(bus.set("gw_tc_loralan_down_packet_interval", "100"));

  CLoraLan lan(bus.agent());
  ASSERT_EQ(lan.start(), 1);
  ASSERT_TRUE(log.wait_for_prefix("threadProc, add device", 5000)) << log.dump();
  lora_test::DeviceFile file(path);
  ASSERT_TRUE(file.write("Hello"));
  EXPECT_TRUE(sim->wait_for_line(R"(downlink devEUI="00AA11BB22CC33DD" fPort="10" confirmed="false" fcntd="361" )"
                                 R"(data="48656c6c6f" (5 bytes "Hello") -> result 0)",
                                 5000))
      << sim->output();
  ASSERT_TRUE(sim->write_input("uplink 00aa11bb22cc33dd 576f726c64 5\nuplink 00aa11bb22cc33dd 2121 6\n"));
  EXPECT_EQ(file.read(5, 5000), "World");
  EXPECT_EQ(file.read_for(300), "") << "FPort 6 is filtered out";

  CLoraNode node(bus.agent());
  ASSERT_EQ(node.start(), 1) << log.dump();
  EXPECT_TRUE(sim->wait_for_line("node sync count=0 devEui= -> result 0", 5000)) << sim->output();
  EXPECT_TRUE(sim->wait_for_line("node sync count=1 devEui=00AA11BB22CC33DD -> result 0", 5000)) << sim->output();
  int extra = 0;
  EXPECT_EQ(node.config_change_callback("gw_tc_loralan_rf", "", extra), 1);
  EXPECT_TRUE(sim->wait_for_line(R"(node set_rf RX2Frequency="486900000" TxPower="17" SF="7" -> result 0)", 5000))
      << sim->output();
  node.close_socket();
  lan.stop();
}

}  // namespace
