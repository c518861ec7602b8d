// The serial bridge on a private bus: start() reads and subscribes through the
// development configuration manager (tc-config serve), changes arrive as
// notifications, and the status method answers over the bus.  Isolated: the
// in-test peers listen on the fixed remote port.

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/serial_service.h"
#include "tests/service/serial_test_peer.h"
#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using Zentrova::Iot::Component::CConfigAgent;
using Zentrova::Iot::Component::CDBusChannel;
using Zentrova::Iot::Component::CDBusErrorCallback;
using Zentrova::Iot::Component::CDBusSignalHandler;
using Zentrova::Iot::DBus::CDBusMethodCall;
using Zentrova::Iot::DBus::CDBusMethodReturn;
using tc_test::ChildProcess;
using tc_test::TestPeer;

namespace {

const std::string kTool = TC_BINARY_DIR "/tools/tc-config/tc-config";
const std::string kSelf = "iot.gateway.transparentchannel";
const std::string kKey = "gw_tc_serial_devices";

void ignore_error(int32_t) {}

std::unique_ptr<CDBusChannel> make_channel(const std::string& address, const std::string& name) {
  auto channel = std::make_unique<CDBusChannel>(address, name, "/" + name, std::vector<std::string>{});
  channel->set_error_callback(CDBusErrorCallback(&ignore_error));
  channel->register_signal("NameAcquired", CDBusSignalHandler());
  return channel;
}

class SerialBus : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/serial-bus-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    ASSERT_TRUE(bus.start()) << bus.error();
    channel = make_channel(bus.address(), kSelf);
    agent = std::make_unique<CConfigAgent>(channel.get(), kSelf);
    service = std::make_unique<CSerialService>(channel.get(), agent.get());
    ASSERT_EQ(channel->start(), 1);
    client = make_channel(bus.address(), "iot.test.client");
    ASSERT_EQ(client->start(), 1);
  }
  void TearDown() override {
    service.reset();
    client->stop();
    channel->stop();
    manager.reset();
    rmdir(m_dir.c_str());
  }
  void serve() {
    manager = std::make_unique<ChildProcess>(std::vector<std::string>{kTool, "serve", "--bus", bus.address()});
    ASSERT_TRUE(manager->wait_for_line("ready on", 10000)) << manager->output();
  }
  int set(const std::string& value) {
    ChildProcess tool({kTool, "set", kKey, value, "--bus", bus.address()});
    int status = 0;
    EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
    return tc_test::exit_code(status);
  }
  std::string path(int n) const { return m_dir + "/ttyV" + std::to_string(n); }
  std::string item(int n) const {
    return "{\"local_device\":\"" + path(n) + "\",\"remote_device\":{\"ip\":\"127.0.0." + std::to_string(n) +
           "\",\"device\":\"ttyS" + std::to_string(n) +
           "\",\"baud_rate\":115200,\"data_bit\":8,\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":1}}";
  }
  std::string green(int n) const {
    return "\033[32m[" + path(n) + "] <--> [127.0.0." + std::to_string(n) + ":ttyS" + std::to_string(n) +
           "], Connect Successfully\033[0m\n";
  }
  // Asked over the bus, as an operator's tool would.
  std::string status() {
    CDBusMethodCall call(kSelf, "/iot/gateway/transparentchannel", kSelf, "serial_port_connect_status");
    CDBusMethodReturn reply;
    std::string text = "<no reply>";
    if (client->block_call(call, reply, 3000) != 0 || !reply.get_string(text)) return "<no reply>";
    return text;
  }
  bool wait_status(const std::string& expected) {
    for (int waited = 0; waited < 10000; waited += 50) {
      if (status() == expected) return true;
      usleep(50000);
    }
    return false;
  }

  tc_test::LogCaptureScope log;  // first: outlives every thread that logs
  tc_test::DBusDaemon bus;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CConfigAgent> agent;
  std::unique_ptr<CSerialService> service;
  std::unique_ptr<CDBusChannel> client;
  std::unique_ptr<ChildProcess> manager;
  std::string m_dir;
};

TEST_F(SerialBus, StartFailsUntilTheManagerAnswersThenReadsSubscribesAndFollowsTheKey) {
  EXPECT_FALSE(service->start());
  EXPECT_EQ(log.count("start, get config [" + kKey + "] fail."), 1u) << log.dump();
  EXPECT_EQ(status(), "");  // the status method is there before any start

  serve();
  ASSERT_EQ(set("[" + item(1) + "]"), 0);
  TestPeer one("127.0.0.1");
  TestPeer two("127.0.0.2");
  ASSERT_TRUE(service->start());
  EXPECT_EQ(log.count("start, get config " + kKey + ":[" + item(1) + "]"), 1u) << log.dump();
  ConnectRequest request{};
  auto link1 = one.establish(&request, 10000);
  ASSERT_TRUE(link1);
  EXPECT_EQ(request.flow_control, 1);
  EXPECT_TRUE(wait_status(green(1))) << status();
  EXPECT_TRUE(service->start());  // already running: nothing is read again
  EXPECT_EQ(log.count_prefix("start, get config"), 2u) << log.dump();

  const std::string both = "[" + item(1) + "," + item(2) + "]";
  ASSERT_EQ(set(both), 0);
  EXPECT_TRUE(log.wait_for("callback_config, " + kKey + ":" + both, 10000)) << log.dump();
  auto link2 = two.establish(nullptr, 10000);
  ASSERT_TRUE(link2);
  EXPECT_TRUE(wait_status(green(1) + green(2))) << status();
  EXPECT_FALSE(link1->wait_closed(100));  // untouched by the change
}

}  // namespace
