// The shipped bus policy on a real dbus-daemon: anybody may ask for the
// connection status, but only the configuration manager's name gets a
// "notify_config" through.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>

#include "component/dbus_channel.h"
#include "tests/support/dbus_daemon.h"

using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;

namespace {

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
