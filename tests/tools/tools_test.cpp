// tc-config as a user runs it, for what the end-to-end tests cannot see: its
// store across restarts.  (tc-lora-sim's options and commands are driven by
// the LoRa tests in tests/service; what tc-serial-peer opens or refuses, and
// why, shows through the service in tests/e2e.)

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/device_file.h"

using tc_test::ChildProcess;

namespace {

const std::string kConfig = TC_BINARY_DIR "/tools/tc-config/tc-config";

struct Result {
  int status;
  std::string output;  // standard output and error, merged
};

Result run(const std::vector<std::string>& argv, const std::string& input = "") {
  ChildProcess tool(argv);
  if (!input.empty()) tool.write_input(input);
  tool.close_input();
  int status = 0;
  EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
  return {tc_test::exit_code(status), tool.output()};
}

std::unique_ptr<ChildProcess> start(const std::vector<std::string>& argv, const std::string& ready) {
  auto tool = std::make_unique<ChildProcess>(argv);
  EXPECT_TRUE(tool->wait_for_line(ready, 10000)) << tool->output();
  return tool;
}

std::string read_file(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(TcConfig, SetsGetsAndListsAndKeepsItsStoreAcrossRestarts) {
  tc_test::DBusDaemon bus;
  ASSERT_TRUE(bus.start()) << bus.error();
  tc_test::TempDir dir;
  const std::string store = dir.file("store.json");
  const auto tool = [&](std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), kConfig);
    args.insert(args.end(), {"--bus", bus.address()});
    return run(args, input);
  };
  const std::vector<std::string> serve{kConfig, "serve", "--bus", bus.address(), "--store", store};

  std::ofstream(store) << "[1, 2]";
  const Result refused = run(serve);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.output.find("is not a JSON object"), std::string::npos) << refused.output;
  EXPECT_EQ(read_file(store), "[1, 2]") << "left as it was";

  std::ofstream(store) << "{\"gw_tc_serial_devices\": [{\"id\": 1}], \"gw_tc_loralan_mode\": \"2\"}";
  auto server = start(serve, "ready on");
  EXPECT_EQ(tool({"get", "gw_tc_serial_devices"}).output, "[{\"id\":1}]\n") << "non-strings kept as JSON text";
  EXPECT_EQ(tool({"get", "gw_tc_nothing"}).output, "\n") << "a missing key reads as empty";
  EXPECT_EQ(tool({"set", "gw_tc_loralan_devices", "-"}, "[\n  {\"a\": 1}\n]\n").status, 0);
  EXPECT_EQ(tool({"get", "gw_tc_loralan_devices"}).output, "[\n  {\"a\": 1}\n]\n") << "the last newline dropped";
  EXPECT_EQ(tool({"set", "gw_tc_loralan_mode", "3"}).status, 0);
  EXPECT_EQ(tool({"flush"}).status, 0);
  EXPECT_NE(read_file(store).find("\"gw_tc_loralan_mode\" : \"3\""), std::string::npos) << read_file(store);
  EXPECT_EQ(tool({"set", "gw_tc_loralan_mode", "4"}).status, 0);
  ASSERT_TRUE(server->signal(SIGTERM));
  int status = 0;
  ASSERT_TRUE(server->wait_exit(10000, &status)) << server->output();
  EXPECT_EQ(tc_test::exit_code(status), 0);
  EXPECT_NE(read_file(store).find("\"gw_tc_loralan_mode\" : \"4\""), std::string::npos) << "written at stop";

  server = start(serve, "ready on");
  const Result listed = tool({"list"});
  EXPECT_EQ(listed.status, 0);
  for (const char* member : {R"("gw_tc_loralan_mode" : "4")", R"("gw_tc_serial_devices" : "[{\"id\":1}]")",
                             "gw_tc_loralan_devices"}) {
    EXPECT_NE(listed.output.find(member), std::string::npos) << member << "\n" << listed.output;
  }
  EXPECT_EQ(tool({"reset"}).status, 0);
  EXPECT_EQ(tool({"list"}).output, "{}\n");
}

}  // namespace
