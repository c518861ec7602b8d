// What the package installs around the service.  The systemd unit: it
// parses, systemd-analyze rates it confined, and the service does its whole
// job under the restrictions a test can impose without systemd (sandbox.sh,
// and seccomp_exec.py with the unit's own system-call filter).  The bus
// policy on a real dbus-daemon: anybody may ask for the connection status,
// but only the configuration manager's name gets a "notify_config" through.
// Isolated: the bus path and the ports are fixed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "component/dbus_channel.h"
#include "tests/e2e/gateway.h"
#include "tests/e2e/remote_port.h"
#include "tests/support/device_file.h"

namespace {

using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;

const std::string kUnit = TC_BINARY_DIR "/transparent-channel.service";
const std::string kAnalyze = "/usr/bin/systemd-analyze";

// Exit code and output of a command that ends on its own.
int run(const std::vector<std::string>& argv, std::string& output) {
  tc_test::ChildProcess tool(argv);
  int status = 0;
  if (!tool.wait_exit(30000, &status)) return -1;
  output = tool.output();
  return tc_test::exit_code(status);
}

class Unit : public testing::Test {
 protected:
  void SetUp() override {
    if (access(kAnalyze.c_str(), X_OK) == 0) return;
    if (const char* ci = std::getenv("CI"); ci && std::string(ci) == "true") FAIL() << kAnalyze << " is missing";
    GTEST_SKIP() << kAnalyze << " is missing (packaging/install-deps.sh installs systemd)";
  }
};

TEST_F(Unit, ParsesAndIsRatedConfined) {
  std::string output;
  // Exposure at most 3.5 (systemd-analyze counts in tenths here).
  EXPECT_EQ(run({kAnalyze, "security", "--offline=true", "--threshold=35", kUnit}, output), 0) << output;
  // Every setting known and valid: what is not is reported as "FILE:LINE: ...".
  EXPECT_EQ(output.find(kUnit + ":"), std::string::npos) << output;
}

TEST_F(Unit, TheServiceDoesItsJobInItsSandbox) {
  e2e::Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  std::string links = gw.path("");
  links.pop_back();
  // A folder the unit does not make writable.
  const std::string elsewhere = "/tmp/tc-elsewhere";
  ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
  const e2e::Gateway::Keys keys = {
      {"gw_tc_serial_devices", e2e::json_array({e2e::serial_device(gw.path("ttyV1"), "127.0.0.2", port.path())})},
      {"gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(gw.path("lora1"), "00aa11bb22cc33dd"),
                                                 e2e::lora_device(elsewhere + "/lora2", "00aa11bb22cc33de")})}};
  std::vector<std::string> sandbox = {TC_SOURCE_DIR "/tests/packaging/sandbox.sh", links};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // A sanitizer's runtime makes calls of its own, so only a plain build is filtered.
  sandbox.insert(sandbox.end(), {TC_SOURCE_DIR "/tests/packaging/seccomp_exec.py", kUnit});
#endif
  ASSERT_TRUE(gw.start_bus() && gw.start_manager(keys) && gw.start_lora_sim() && gw.start_serial_peer("127.0.0.2"))
      << gw.error();
  ASSERT_TRUE(gw.start_service(sandbox));
  ASSERT_TRUE(gw.wait_ready()) << gw.error();
  // The bus, a pseudo-terminal behind a link in its folder, TCP to the peer,
  // UDP to the LoRa services; nothing elsewhere.
  const std::string connected = e2e::status_line(gw.path("ttyV1"), "127.0.0.2", port.path(), true);
  std::string last;
  EXPECT_TRUE(gw.wait_status(connected, 10000 * e2e::kSlowdown, &last)) << last;
  EXPECT_TRUE(gw.service().wait_for_line("symlink error: Read-only file system", 5000)) << gw.service().output();
  EXPECT_TRUE(tc_test::path_exists(gw.path("lora1")));
  e2e::expect_bounded_stop(gw);
  rmdir(elsewhere.c_str());
}

const char* const kService = "iot.gateway.transparentchannel";
const char* const kPath = "/iot/gateway/transparentchannel";

struct Service {
  std::atomic<int> notifications{0};
  void notify_config(CDBusMethodCall&, CDBusMethodReturn& reply) {
    ++notifications;
    reply.set_int32(0);
  }
  void status(CDBusMethodCall&, CDBusMethodReturn& reply) { reply.set_string(""); }
};

int32_t call(const std::string& address, const char* from, const char* member) {
  CDBusChannel channel(address, from, "/tc/test/caller", {});
  EXPECT_EQ(channel.start(), 1);
  CDBusMethodCall request(kService, kPath, kService, member);
  request.set_string("gw_tc_serial_devices");
  request.set_string("[]");
  CDBusMethodReturn reply;
  return channel.block_call(request, reply, 3000);
}

TEST(BusPolicy, OnlyTheConfigurationManagerMayNotify) {
  if (geteuid() != 0) GTEST_SKIP() << "the policy grants the service's name to root only";
  tc_test::DBusDaemon daemon;
  ASSERT_TRUE(daemon.start("", TC_SOURCE_DIR "/tests/packaging/gateway-bus.conf")) << daemon.error();
  Service service;
  CDBusChannel channel(daemon.address(), kService, kPath, {});
  channel.register_method("notify_config", CDBusMethodHandler(&service, &Service::notify_config));
  channel.register_method("serial_port_connect_status", CDBusMethodHandler(&service, &Service::status));
  ASSERT_EQ(channel.start(), 1);
  EXPECT_EQ(call(daemon.address(), "tc.test.stranger", "serial_port_connect_status"), 0);
  EXPECT_EQ(call(daemon.address(), "tc.test.stranger", "notify_config"), -5);  // access denied, not our reply
  EXPECT_EQ(service.notifications, 0);
  EXPECT_EQ(call(daemon.address(), "iot.dmp.configmanager", "notify_config"), 0);
  EXPECT_EQ(service.notifications, 1);
}

}  // namespace
