// tc-lora-sim used as a user would: run as a program, fed on its standard
// input, watched on its output, talked to over real UDP.  The simulator in
// front of the running service is in tests/e2e.

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/service/lora_test_support.h"
#include "tests/support/child_process.h"

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

TEST(TcLoraSim, ServesBothServicesAndTakesCommands) {
  UdpPeer bridge(kBridge);
  UdpPeer node(kNodeClient);
  ASSERT_TRUE(bridge.bound() && node.bound());
  auto sim = start_sim();

  // Answered downlinks, set_rf, node batches and uplink commands are exercised
  // by the service end to end (tests/e2e); here what the service never sees.
  ASSERT_TRUE(sim->write_input("uplink 0102 4g1 223 4\nuplink 0102 41\n"));
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

}  // namespace
