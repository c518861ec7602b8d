// The shipped bus policy on a real dbus-daemon: anybody may ask for the
// connection status, but only the configuration manager's name gets a
// "notify_config" through.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>

#include "component/dbus_channel.h"
#include "tests/support/dbus_daemon.h"

using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;

namespace {

const char* const kService = "iot.gateway.transparentchannel";
const char* const kPath = "/iot/gateway/transparentchannel";

// The gateway bus: the usual system-bus defaults (method calls denied unless a
// rule allows them), with our snippet included.
std::string write_bus_config(const std::string& dir) {
  const std::string path = dir + "/bus.conf";
  std::ofstream(path) << "<busconfig>\n"
                         "  <type>system</type>\n"
                         "  <listen>unix:tmpdir=/tmp</listen>\n"
                         "  <auth>EXTERNAL</auth>\n"
                         "  <policy context=\"default\">\n"
                         "    <allow user=\"*\"/>\n"
                         "    <deny own=\"*\"/>\n"
                         "    <deny send_type=\"method_call\"/>\n"
                         "    <allow send_type=\"signal\"/>\n"
                         "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
                         "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
                         "    <allow receive_type=\"method_call\"/>\n"
                         "    <allow receive_type=\"method_return\"/>\n"
                         "    <allow receive_type=\"error\"/>\n"
                         "    <allow receive_type=\"signal\"/>\n"
                         "    <allow send_destination=\"org.freedesktop.DBus\"/>\n"
                         "    <allow own=\"iot.dmp.configmanager\"/>\n"
                         "    <allow own_prefix=\"tc.test\"/>\n"
                         "  </policy>\n"
                         "  <include>" TC_SOURCE_DIR "/packaging/transparent-channel-bus.conf</include>\n"
                         "</busconfig>\n";
  return path;
}

struct Service {
  std::atomic<int> notifications{0};
  void notify_config(CDBusMethodCall&, CDBusMethodReturn& reply) {
    ++notifications;
    reply.set_int32(0);
  }
  void status(CDBusMethodCall&, CDBusMethodReturn& reply) { reply.set_string(""); }
};

int32_t call(CDBusChannel& from, const char* member) {
  CDBusMethodCall request(kService, kPath, kService, member);
  request.set_string("gw_tc_serial_devices");
  request.set_string("[]");
  CDBusMethodReturn reply;
  return from.block_call(request, reply, 3000);
}

TEST(BusPolicy, OnlyTheConfigurationManagerMayNotify) {
  if (geteuid() != 0) GTEST_SKIP() << "the policy grants the service's name to root only";
  char dir[] = "/tmp/tc-policy-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  tc_test::DBusDaemon daemon;
  ASSERT_TRUE(daemon.start(std::string(dir) + "/bus_socket", write_bus_config(dir))) << daemon.error();

  Service service;
  CDBusChannel channel(daemon.address(), kService, kPath, {});
  channel.register_method("notify_config", CDBusMethodHandler(&service, &Service::notify_config));
  channel.register_method("serial_port_connect_status", CDBusMethodHandler(&service, &Service::status));
  ASSERT_EQ(channel.start(), 1);

  CDBusChannel stranger(daemon.address(), "tc.test.stranger", "/tc/test/stranger", {});
  ASSERT_EQ(stranger.start(), 1);
  EXPECT_EQ(call(stranger, "serial_port_connect_status"), 0);
  EXPECT_EQ(call(stranger, "notify_config"), -5);  // an access-denied error, not our reply
  EXPECT_EQ(service.notifications, 0);

  CDBusChannel manager(daemon.address(), "iot.dmp.configmanager", "/iot/dmp/configmanager", {});
  ASSERT_EQ(manager.start(), 1);
  EXPECT_EQ(call(manager, "notify_config"), 0);
  EXPECT_EQ(service.notifications, 1);

  manager.stop();
  stranger.stop();
  channel.stop();
  daemon.stop();
  rmdir(dir);
}

}  // namespace
