// The serial bridge's configuration wiring on a private bus: start() reads and
// subscribes through the development configuration manager (tc-config serve)
// and changes come back as notifications.  The status method, the device
// links and tc-config changes of the running service are covered by tests/e2e.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/serial_service.h"
#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using Zentrova::Iot::Component::CConfigAgent;
using Zentrova::Iot::Component::CDBusChannel;
using Zentrova::Iot::Component::CDBusErrorCallback;
using Zentrova::Iot::Component::CDBusSignalHandler;
using tc_test::ChildProcess;

namespace {

const std::string kTool = TC_BINARY_DIR "/tools/tc-config/tc-config";
const std::string kSelf = "iot.gateway.transparentchannel";
const std::string kKey = "gw_tc_serial_devices";

void ignore_error(int32_t) {}

class SerialBus : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/serial-bus-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    ASSERT_TRUE(bus.start()) << bus.error();
    channel = std::make_unique<CDBusChannel>(bus.address(), kSelf, "/iot/gateway/transparentchannel",
                                             std::vector<std::string>{});
    channel->set_error_callback(CDBusErrorCallback(&ignore_error));
    channel->register_signal("NameAcquired", CDBusSignalHandler());
    agent = std::make_unique<CConfigAgent>(channel.get(), kSelf);
    service = std::make_unique<CSerialService>(channel.get(), agent.get());
    ASSERT_EQ(channel->start(), 1);
  }
  void TearDown() override {
    service.reset();
    channel->stop();
    manager.reset();
    std::string cmd = "rm -rf " + m_dir;
    EXPECT_EQ(system(cmd.c_str()), 0);
  }
  int set(const std::string& value) {
    ChildProcess tool({kTool, "set", kKey, value, "--bus", bus.address()});
    int status = 0;
    EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
    return tc_test::exit_code(status);
  }
  std::string item(int n) const {
    return "{\"local_device\":\"" + m_dir + "/ttyV" + std::to_string(n) + "\",\"remote_device\":{\"ip\":\"127.0.0." +
           std::to_string(n) + "\",\"device\":\"ttyS" + std::to_string(n) +
           "\",\"baud_rate\":115200,\"data_bit\":8,\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":1}}";
  }

  tc_test::LogCaptureScope log;  // first: outlives every thread that logs
  tc_test::DBusDaemon bus;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CConfigAgent> agent;
  std::unique_ptr<CSerialService> service;
  std::unique_ptr<ChildProcess> manager;
  std::string m_dir;
};

TEST_F(SerialBus, StartFailsUntilTheManagerAnswersThenReadsOnceSubscribesAndFollowsTheKey) {
  EXPECT_FALSE(service->start());
  EXPECT_EQ(log.count("start, get config [" + kKey + "] fail."), 1u) << log.dump();

  manager = std::make_unique<ChildProcess>(std::vector<std::string>{kTool, "serve", "--bus", bus.address()});
  ASSERT_TRUE(manager->wait_for_line("ready on", 10000)) << manager->output();
  ASSERT_EQ(set("[" + item(1) + "]"), 0);
  ASSERT_TRUE(service->start());
  EXPECT_EQ(log.count("start, get config " + kKey + ":[" + item(1) + "]"), 1u) << log.dump();
  EXPECT_TRUE(manager->wait_for_line("subscribed to [" + kKey + "]", 5000)) << manager->output();
  EXPECT_TRUE(log.wait_for_prefix("add device, " + m_dir + "/ttyV1 ", 5000)) << log.dump();
  EXPECT_TRUE(service->start());  // already running: nothing is read again
  EXPECT_EQ(log.count_prefix("start, get config"), 2u) << log.dump();

  const std::string both = "[" + item(1) + "," + item(2) + "]";
  ASSERT_EQ(set(both), 0);
  EXPECT_TRUE(log.wait_for("callback_config, " + kKey + ":" + both, 10000)) << log.dump();
  EXPECT_TRUE(log.wait_for_prefix("add device, " + m_dir + "/ttyV2 ", 5000)) << log.dump();
}

}  // namespace
