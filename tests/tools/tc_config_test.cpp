// tc-config as a person at a shell uses it, on a private bus.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"

using tc_test::ChildProcess;

namespace {

const std::string kTool = TC_BINARY_DIR "/tools/tc-config/tc-config";

struct Result {
  int status;
  std::string output;  // standard output and error, merged
};

Result run(const std::vector<std::string>& args, const std::string& input = "") {
  std::vector<std::string> argv{kTool};
  argv.insert(argv.end(), args.begin(), args.end());
  ChildProcess tool(argv);
  if (!input.empty()) tool.write_input(input);
  tool.close_input();
  int status = 0;
  EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
  return {tc_test::exit_code(status), tool.output()};
}

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class TcConfig : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    char dir[] = "/tmp/tc-config-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    store = m_dir + "/store.json";
  }
  void TearDown() override {
    server.reset();
    unlink(store.c_str());
    rmdir(m_dir.c_str());
  }
  void serve() {
    server = std::make_unique<ChildProcess>(std::vector<std::string>{kTool, "serve", "--bus", bus.address(), "--store", store});
    ASSERT_TRUE(server->wait_for_line("ready on", 10000)) << server->output();
  }
  Result tool(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.end(), {"--bus", bus.address()});
    return run(args, input);
  }
  int stop_server() {
    server->signal(SIGTERM);
    int status = 0;
    EXPECT_TRUE(server->wait_exit(10000, &status)) << server->output();
    return tc_test::exit_code(status);
  }
  tc_test::DBusDaemon bus;
  std::unique_ptr<ChildProcess> server;
  std::string m_dir;
  std::string store;
};

TEST_F(TcConfig, SetGetAndListAsAUserWould) {
  serve();
  EXPECT_EQ(tool({"set", "gw_tc_serial_devices", "[]"}).status, 0);
  Result got = tool({"get", "gw_tc_serial_devices"});
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.output, "[]\n");
  EXPECT_EQ(tool({"get", "gw_tc_nothing"}).output, "\n") << "a missing key reads as empty";

  const std::string document = "[\n  {\"local_device\": \"/dev/ttyTC0\"}\n]\n";
  EXPECT_EQ(tool({"set", "gw_tc_loralan_devices", "-"}, document).status, 0);
  EXPECT_EQ(tool({"get", "gw_tc_loralan_devices"}).output, "[\n  {\"local_device\": \"/dev/ttyTC0\"}\n]\n")
      << "standard input, trailing newline dropped";

  Result listed = tool({"list"});
  EXPECT_EQ(listed.status, 0);
  EXPECT_NE(listed.output.find("\"gw_tc_serial_devices\" : \"[]\""), std::string::npos) << listed.output;
  EXPECT_NE(listed.output.find("gw_tc_loralan_devices"), std::string::npos);
}

TEST_F(TcConfig, StoreIsWrittenOnFlushAndStopAndReadBackAtStart) {
  std::ofstream(store) << "[1, 2]";
  Result refused = run({"serve", "--bus", bus.address(), "--store", store});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.output.find("is not a JSON object"), std::string::npos) << refused.output;
  EXPECT_EQ(read_file(store), "[1, 2]") << "left as it was";

  std::ofstream(store) << "{\"gw_tc_serial_devices\": [{\"id\": 1}], \"gw_tc_loralan_mode\": \"2\"}";
  serve();
  EXPECT_EQ(tool({"get", "gw_tc_serial_devices"}).output, "[{\"id\":1}]\n") << "non-strings kept as JSON text";
  EXPECT_EQ(tool({"set", "gw_tc_loralan_mode", "3"}).status, 0);
  EXPECT_EQ(tool({"flush"}).status, 0);
  EXPECT_NE(read_file(store).find("\"gw_tc_loralan_mode\" : \"3\""), std::string::npos) << read_file(store);
  EXPECT_EQ(tool({"set", "gw_tc_loralan_mode", "4"}).status, 0);
  EXPECT_EQ(stop_server(), 0);
  EXPECT_NE(read_file(store).find("\"gw_tc_loralan_mode\" : \"4\""), std::string::npos) << "written at stop";
  serve();
  EXPECT_EQ(tool({"get", "gw_tc_loralan_mode"}).output, "4\n");
  EXPECT_EQ(tool({"reset"}).status, 0);
  EXPECT_EQ(tool({"list"}).output, "{}\n");
}

}  // namespace
