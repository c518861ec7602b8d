// What the package installs around the service.  The systemd unit: it
// parses, systemd-analyze rates it confined, and the service does its whole
// job under the restrictions a test can impose without systemd (sandbox.sh,
// and seccomp_exec.py with the unit's own system-call filter), on a bus that
// runs the shipped policy: anybody may read the links' status, but only
// the configuration manager's name gets a "notify_config" through.
// Isolated: the bus path and the ports are fixed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/e2e/gateway.h"

namespace {

const std::string kUnit = TC_BINARY_DIR "/transparent-channel.service";
const std::string kAnalyze = "/usr/bin/systemd-analyze";

class Unit : public testing::Test {
 protected:
  void SetUp() override {
    if (access(kAnalyze.c_str(), X_OK) == 0) return;
    if (const char* ci = std::getenv("CI"); ci && std::string(ci) == "true") FAIL() << kAnalyze << " is missing";
    GTEST_SKIP() << kAnalyze << " is missing (packaging/install-deps.sh installs systemd)";
  }
};

TEST_F(Unit, ParsesAndIsRatedConfined) {
  // Exposure at most 3.5 (systemd-analyze counts in tenths here).
  const std::string output = e2e::run({kAnalyze, "security", "--offline=true", "--threshold=35", kUnit});
  // Every setting known and valid: what is not is reported as "FILE:LINE: ...".
  EXPECT_EQ(output.find(kUnit + ":"), std::string::npos) << output;
}

TEST_F(Unit, TheServiceDoesItsJobInItsSandboxBehindTheBusPolicy) {
  e2e::Gateway gw;
  e2e::RemotePort port;
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
  ASSERT_TRUE(gw.start_bus(TC_SOURCE_DIR "/tests/packaging/gateway-bus.conf") && gw.start_manager(keys) &&
              gw.start_lora_sim() && gw.start_serial_peer("127.0.0.2") && gw.start_service(sandbox) && gw.wait_ready())
      << gw.error();
  // The bus, a pseudo-terminal behind a link in its folder, TCP to the peer,
  // UDP to the LoRa services; nothing elsewhere.
  EXPECT_TRUE(gw.wait_status(e2e::status_line(gw.path("ttyV1"), "127.0.0.2", port.path(), true)));
  EXPECT_TRUE(gw.service().wait_for_line("symlink error: Read-only file system", 5000)) << gw.service().output();
  EXPECT_TRUE(tc_test::path_exists(gw.path("lora1")));
  // An operator's tools get through: tc-status's counters, busctl's introspection.
  const std::string table = e2e::run({TC_BINARY_DIR "/tools/tc-status/tc-status"});
  EXPECT_NE(table.find(gw.path("ttyV1")), std::string::npos) << table;
  const std::string methods = e2e::run({"/usr/bin/busctl", "--address=unix:path=/tmp/var/run/mbusd/mbusd_socket",
                                        "introspect", "iot.gateway.transparentchannel", "/iot/gateway/transparentchannel"});
  EXPECT_NE(methods.find(".channel_statistics"), std::string::npos) << methods;

  tc_test::ChildProcess stranger({"/usr/bin/dbus-send", "--bus=unix:path=/tmp/var/run/mbusd/mbusd_socket",
                                  "--print-reply", "--dest=iot.gateway.transparentchannel",
                                  "/iot/gateway/transparentchannel", "iot.gateway.transparentchannel.notify_config",
                                  "string:gw_tc_loralan_down_packet_interval", "string:250"});
  ASSERT_TRUE(stranger.wait_exit(e2e::kWaitMs, nullptr));
  EXPECT_NE(stranger.output().find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << stranger.output();
  ASSERT_EQ(gw.set_config("gw_tc_loralan_down_packet_interval", "250"), 0);
  EXPECT_TRUE(gw.manager().wait_for_line("[iot.gateway.transparentchannel] result [0].", e2e::kWaitMs))
      << gw.manager().output();
  e2e::expect_bounded_stop(gw);
  rmdir(elsewhere.c_str());
}

}  // namespace
