// LoRa node provisioning with real parts: keys from the development
// configuration manager on a private bus; the test plays the node service on
// 127.0.0.1:16058 while the requests block another thread, as they block the
// service's main and notification threads.

#include "service/lora_node.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/json/json_text.h"
#include "service/lora_node_request.h"
#include "tests/service/lora_test_support.h"
#include "tests/support/log_capture.h"

using namespace std::chrono;
using namespace Zentrova::Iot::TransparentChannel;
using lora_test::udp_port_free;

namespace {

const char* const kRfKey = "gw_tc_loralan_rf";
const char* const kDevicesKey = "gw_tc_loralan_devices";
const std::string kOk = "{\"result\":0}";
const std::string kDefaultRf = R"({"class-c":{"RX2Frequency":"486900000","SF":"7","TxPower":"17"},"method":"set_rf"})";

std::string devices(int n) {
  std::string text = "[";
  for (int i = 0; i < n; ++i) {
    char eui[17];
    snprintf(eui, sizeof eui, "%016x", i);
    text += (i ? ",{\"devEUI\":\"" : "{\"devEUI\":\"") + std::string(eui) + "\",\"nwkskey\":\"k\",\"mode\":\"ABP\"}";
  }
  return text + "]";
}

// "method count first-EUI" of a node list request.
std::string summary(const std::string& request) {
  Json::Value root;
  if (!Zentrova::Iot::Platform::string_to_json(request, root)) return request;
  const Json::Value& nodes = root["loranode"];
  std::string text = root["method"].asString() + " " + std::to_string(nodes.size());
  return nodes.empty() ? text : text + " " + nodes[0]["devEui"].asString();
}

// Polls until thread `tid` of this process sleeps in recvfrom.
bool in_recvfrom(const std::atomic<long>& tid) {
  for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(milliseconds(10))) {
    long number = -1;
    if (tid != 0 && (std::ifstream("/proc/self/task/" + std::to_string(tid) + "/syscall") >> number) &&
        number == SYS_recvfrom) {
      return true;
    }
  }
  return false;
}

class LoraNode : public testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(bus.start(why)) << why;
    ASSERT_TRUE(service.bound());
    node = std::make_unique<CLoraNode>(bus.agent());
  }
  void TearDown() override {
    node->close_socket();
    node.reset();
  }
  void set(const std::string& key, const std::string& value) { ASSERT_TRUE(bus.set(key, value)) << key; }
  // The node service's side of one exchange.
  std::string serve(const std::string& answer) {
    auto request = service.receive(5000);
    if (!request) return "(no request)";
    service.reply(answer);
    return *request;
  }
  std::future<int> start() {
    return std::async(std::launch::async, [this] { return node->start(); });
  }
  std::future<int> change(const std::string& key, const std::string& value) {
    return std::async(std::launch::async, [this, key, value] {
      int extra = 0;
      return node->config_change_callback(key, value, extra);
    });
  }
  bool no_more_requests() { return !service.receive(300); }

  tc_test::LogCaptureScope log;
  lora_test::ConfigBus bus;
  lora_test::UdpPeer service{LORA_NODE_SERVER_PORT};
  std::unique_ptr<CLoraNode> node;
};

TEST_F(LoraNode, StartSendsTheConfiguredRfThenTheNodeList) {
  set(kRfKey, R"({"class-c":{"RX2Frequency":"868100000","TxPower":"20","SF":"9"}})");
  set(kDevicesKey, R"([{"devFile":"/dev/lora0","devEUI":"00aa11bb22cc33dd","devAddr":"0a0b0c0d","nwkskey":"ab",)"
                   R"("appskey":"cd","mode":"abp"},{"devFile":"/dev/lora1","devEUI":"0102"}])");
  auto started = start();
  EXPECT_EQ(serve(kOk), R"({"class-c":{"RX2Frequency":"868100000","SF":"9","TxPower":"20"},"method":"set_rf"})");
  EXPECT_EQ(serve(kOk), R"({"loranode":[],"method":"sync"})");
  EXPECT_EQ(serve(kOk), R"({"loranode":[{"appskey":"CD","devAddr":"0A0B0C0D","devEui":"00AA11BB22CC33DD",)"
                        R"("mode":"ABP","nwkskey":"AB"},{"appskey":"","devAddr":"","devEui":"0102","mode":"",)"
                        R"("nwkskey":""}],"method":"sync"})");
  EXPECT_EQ(started.get(), 1) << log.dump();
  EXPECT_TRUE(no_more_requests());
  EXPECT_TRUE(node->rf_ready());
  EXPECT_TRUE(log.contains("start, create 127.0.0.1:16068 success"));
  EXPECT_TRUE(log.contains(
      "deal_node_change_config, [0] dev_eui:00aa11bb22cc33dd dev_addr:0a0b0c0d nwkskey:ab appskey:cd mode:abp"));
  EXPECT_TRUE(log.contains("sync_abp_node, count:2, response:{\"result\":0}"));
  node->close_socket();
  EXPECT_TRUE(udp_port_free(LORA_NODE_LOCAL_PORT));
}

TEST_F(LoraNode, ARefusedStartReleasesTheSocketAndTheRetryBindsAfresh) {
  set(kDevicesKey, devices(1));
  auto started = start();
  EXPECT_EQ(summary(serve("{\"result\":4}")), "sync 0");
  EXPECT_EQ(started.get(), 0);
  EXPECT_TRUE(log.contains("start, deal_node_change_config fail."));
  EXPECT_TRUE(udp_port_free(LORA_NODE_LOCAL_PORT));

  set(kRfKey, "{");
  EXPECT_EQ(start().get(), 0);
  EXPECT_TRUE(log.contains("deal_rf_change_config, string_to_json fail."));
  EXPECT_TRUE(log.contains("start, deal_rf_change_config fail."));
  EXPECT_TRUE(no_more_requests());

  set(kRfKey, "");
  started = start();
  EXPECT_EQ(summary(serve(kOk)), "sync 0");
  EXPECT_EQ(summary(serve(kOk)), "sync 1 0000000000000000");
  EXPECT_EQ(started.get(), 1);
}

TEST_F(LoraNode, RfChangesSendDefaultsOnlyForAnEmptyValue) {
  EXPECT_EQ(start().get(), 1);
  EXPECT_TRUE(no_more_requests()) << "empty values send nothing at start";

  auto done = change(kRfKey, "");
  EXPECT_EQ(serve(kOk), kDefaultRf);
  EXPECT_EQ(done.get(), 1);
  done = change(kRfKey, R"({"class-c":{"RX2Frequency":"868500000","SF":9}})");
  EXPECT_EQ(serve("{\"answer\":0}"), R"({"class-c":{"RX2Frequency":"868500000","SF":"","TxPower":""},"method":"set_rf"})");
  EXPECT_EQ(done.get(), 0);
  EXPECT_TRUE(log.contains("set_rf, result:-100"));
  EXPECT_FALSE(node->rf_ready());
  done = change(kRfKey, "");
  EXPECT_EQ(serve("busy"), kDefaultRf);
  EXPECT_EQ(done.get(), 0);
  EXPECT_TRUE(log.contains("set_rf, string_to_json fail, str_response:busy"));
  EXPECT_EQ(change(kRfKey, "class-c").get(), 0);
  EXPECT_TRUE(no_more_requests()) << "a value that is not JSON sends nothing";
}

// 250 nodes (sync 0, sync 100, add 100, add 50) are shown end to end in tests/e2e.
TEST_F(LoraNode, NodeListsGoAsAnEmptySyncThenBatchesOfAHundred) {
  EXPECT_EQ(start().get(), 1);
  auto done = change(kDevicesKey, devices(100));
  EXPECT_EQ(summary(serve(kOk)), "sync 0");
  EXPECT_EQ(summary(serve(kOk)), "sync 100 0000000000000000");
  done.get();
  EXPECT_TRUE(no_more_requests()) << "exactly 100: no add";
  for (const char* empty : {"[]", ""}) {
    done = change(kDevicesKey, empty);
    EXPECT_EQ(summary(serve(kOk)), "sync 0") << empty;
    done.get();
  }
  change(kDevicesKey, R"({"devEUI":"01"})").get();
  EXPECT_TRUE(log.contains("deal_node_change_config, config is not array format."));
  EXPECT_TRUE(no_more_requests());
}

TEST_F(LoraNode, AFailedBatchStopsTheRest) {
  EXPECT_EQ(start().get(), 1);
  auto done = change(kDevicesKey, devices(250));
  EXPECT_EQ(summary(serve(kOk)), "sync 0");
  EXPECT_EQ(summary(serve("{\"result\":3}")), "sync 100 0000000000000000");
  done.get();
  EXPECT_TRUE(no_more_requests());
  EXPECT_EQ(log.count("deal_node_change_config, sync_abp_node fail"), 1u);

  done = change(kDevicesKey, devices(250));
  EXPECT_EQ(summary(serve(kOk)), "sync 0");
  EXPECT_EQ(summary(serve(kOk)), "sync 100 0000000000000000");
  EXPECT_EQ(summary(serve("{}")), "add 100 0000000000000064");
  done.get();
  EXPECT_TRUE(no_more_requests());
  EXPECT_EQ(log.count("deal_node_change_config, add_abp_node fail"), 1u);
}

TEST_F(LoraNode, ASilentServiceCostsTenSecondsALateAnswerIsDroppedAndACloseEndsTheWait) {
  EXPECT_EQ(start().get(), 1);
  const auto begin = steady_clock::now();
  auto done = change(kRfKey, "");
  ASSERT_TRUE(service.receive(5000));
  EXPECT_EQ(done.get(), 0);
  const auto waited = duration_cast<milliseconds>(steady_clock::now() - begin).count();
  EXPECT_GE(waited, 9900);
  EXPECT_LE(waited, 12000);
  EXPECT_TRUE(log.contains("udp_node_send_and_recv, recv_udp fail, iret:-1"));
  EXPECT_TRUE(log.contains("set_rf, udp_node_send_and_recv fail"));

  // Too late: waiting on the socket, it must not pass for the next answer.
  ASSERT_TRUE(service.reply("{\"result\":9}"));
  done = change(kRfKey, "");
  EXPECT_EQ(serve(kOk), kDefaultRf);
  EXPECT_EQ(done.get(), 1);

  // A close while a request waits ends that wait and lets the request finish
  // before the descriptor goes, so the port is free again at once.
  std::atomic<long> waiter{0};
  done = std::async(std::launch::async, [&] {
    waiter = syscall(SYS_gettid);
    int extra = 0;
    return node->config_change_callback(kRfKey, "", extra);
  });
  ASSERT_TRUE(service.receive(5000));
  ASSERT_TRUE(in_recvfrom(waiter)) << "the request never waited";
  const auto closing = steady_clock::now();
  node->close_socket();
  EXPECT_LT(duration_cast<milliseconds>(steady_clock::now() - closing).count(), 1000);
  EXPECT_EQ(log.count("udp_node_send_and_recv, recv_udp fail, iret:-1"), 2u) << "ended before the close returned";
  EXPECT_EQ(start().get(), 1) << log.dump();
  EXPECT_EQ(done.get(), 0);
}

TEST(LoraNodeWithoutManager, StartFailsAndRequestsFailOnTheClosedSocket) {
  tc_test::LogCaptureScope log;
  lora_test::ConfigBus bus;
  std::string why;
  ASSERT_TRUE(bus.start(why, false)) << why;
  CLoraNode node(bus.agent());
  EXPECT_EQ(node.start(), 0);
  EXPECT_TRUE(log.contains("start, get config [gw_tc_loralan_rf] fail."));
  EXPECT_TRUE(udp_port_free(LORA_NODE_LOCAL_PORT));
  int extra = 0;
  EXPECT_EQ(node.config_change_callback(kRfKey, "", extra), 0);
  EXPECT_TRUE(log.contains("udp_node_send_and_recv, send_udp fail, iret:-1"));
  node.close_socket();
}

}  // namespace
