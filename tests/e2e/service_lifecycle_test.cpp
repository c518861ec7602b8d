// The built service on a real gateway bus, from start to exit: the start-up
// order, the signals while fully running, a bus that is late or dies, and the
// parts that fail (no configuration manager, a node service that never
// answers).  Shutdown is always orderly and bounded.  Isolated: the bus path
// and the ports are fixed.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include <chrono>
#include <cstring>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/gateway.h"
#include "tests/e2e/remote_port.h"

using e2e::ExitResult;
using e2e::Gateway;
using e2e::kShutdownBoundMs;
using e2e::kSlowdown;

namespace {

const char* const kBusConnected =
    " I start: [iot.gateway.transparentchannel] connect to dbus server "
    "[unix:path=/tmp/var/run/mbusd/mbusd_socket] successs.";
const char* const kBusRetry = " W start: start, dbus connect fail, try again";
const char* const kLanRetry = " W start: start, lora lan start fail, try again";
const char* const kNodeRetry = " W start: start, lora node start fail, try again";
const char* const kEui = "00aa11bb22cc33dd";
const char* const kIntervalKey = "gw_tc_loralan_down_packet_interval";
const char* const kIntervalSubscribed = "subscribed to [gw_tc_loralan_down_packet_interval]";

Gateway::Keys keys_for(Gateway& gw, const e2e::RemotePort& port) {
  return {{"gw_tc_serial_devices", e2e::json_array({e2e::serial_device(gw.path("ttyV1"), "127.0.0.2", port.path())})},
          {"gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(gw.path("lora1"), kEui)})},
          {"gw_tc_loralan_rf", R"({"class-c":{"RX2Frequency":"486900000","TxPower":"17","SF":"7"}})"}};
}

std::string connected(Gateway& gw, const e2e::RemotePort& port) {
  return e2e::status_line(gw.path("ttyV1"), "127.0.0.2", port.path(), true);
}

// Every text in order, each on a later line than the one before.
void expect_in_order(const std::vector<std::string>& lines, const std::vector<std::string>& texts,
                     const std::string& output) {
  int at = -1;
  for (const auto& text : texts) {
    const int next = e2e::find_line(lines, text, at + 1);
    ASSERT_GT(next, at) << "missing or out of order: " << text << "\n" << output;
    at = next;
  }
}

// After a signal: the caught line, the bus connection closed last of all the
// stops, and the exit line as the very last line.
void expect_orderly_exit(Gateway& gw, const std::string& caught) {
  const auto lines = gw.service().lines();
  expect_in_order(lines, {caught, e2e::kDisconnectLine, e2e::kExitLine}, gw.service().output());
  EXPECT_NE(lines.back().find(e2e::kExitLine), std::string::npos) << gw.service().output();
  EXPECT_EQ(gw.service().count_lines(e2e::kExitLine), 1u);
}

struct StopSignal {
  int sig;
  const char* caught;
};

void PrintTo(const StopSignal& stop, std::ostream* out) { *out << strsignal(stop.sig); }

class OrderlyStop : public testing::TestWithParam<StopSignal> {};

TEST_P(OrderlyStop, StartsInOrderServesItsNameIgnoresHupPipeAndStopsAndStopsInOrder) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  ASSERT_TRUE(gw.start_all(keys_for(gw, port))) << gw.error();

  const auto lines = gw.service().lines();
  expect_in_order(lines,
                  {e2e::kStartLine, kBusConnected, "start, get config gw_tc_loralan_mode:",
                   "start, create 127.0.0.1:18099 success", "start, create 127.0.0.1:16068 success",
                   "set_rf, result:0", "sync_abp_node, count:1,", "start, get config gw_tc_serial_devices:",
                   e2e::kReadyLine},
                  gw.service().output());
  // The LAN bridge's own thread makes its device file, alongside the later starts.
  EXPECT_TRUE(gw.service().wait_for_line("threadProc, add device fd:", 5000 * kSlowdown)) << gw.service().output();
  EXPECT_EQ(gw.service().count_lines("try again"), 0u) << gw.service().output();
  // The manager saw the subscriptions in start-up order: the shared LoRa
  // pair, then the LoRa LAN's interval, then the serial list.
  expect_in_order(gw.manager().lines(),
                  {"subscribed to [gw_tc_loralan_rf]", "subscribed to [gw_tc_loralan_devices]", kIntervalSubscribed,
                   "subscribed to [gw_tc_serial_devices]"},
                  gw.manager().output());

  // The bus name is owned: the status method answers by that name.
  std::string last;
  EXPECT_TRUE(gw.wait_status(connected(gw, port), 10000 * kSlowdown, &last)) << last;
  const auto unknown = gw.call("no_such_method");
  ASSERT_TRUE(unknown.has_value());
  EXPECT_EQ(unknown->find("string"), std::string::npos) << *unknown;

  for (int sig : {SIGHUP, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) ASSERT_TRUE(gw.service().signal(sig));
  int status = 0;
  EXPECT_FALSE(gw.service().wait_exit(500, &status)) << "ended by an ignored signal";
  EXPECT_EQ(gw.status().value_or("(no answer)"), connected(gw, port));
  EXPECT_EQ(gw.service().count_lines("caught"), 0u) << gw.service().output();

  const size_t interval_subscriptions = gw.manager().count_lines(kIntervalSubscribed);
  const ExitResult exit = gw.stop_service(GetParam().sig);
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0);
  EXPECT_LT(exit.ms, kShutdownBoundMs);
  expect_orderly_exit(gw, GetParam().caught);
  EXPECT_EQ(gw.service().count_lines("caught"), 1u) << gw.service().output();
  // The LoRa LAN bridge re-subscribed its interval with no callback while
  // the bus connection, stopped last, was still up.
  EXPECT_TRUE(gw.manager().wait_for_line(kIntervalSubscribed, 5000, interval_subscriptions + 1))
      << gw.manager().output();
}

INSTANTIATE_TEST_SUITE_P(Signals, OrderlyStop,
                         testing::Values(StopSignal{SIGTERM, " W system_signal_handler: caught Terminated signal, exit"},
                                         StopSignal{SIGINT, " W system_signal_handler: caught Interrupt signal, exit"}),
                         [](const testing::TestParamInfo<StopSignal>& info) {
                           return info.param.sig == SIGTERM ? "Sigterm" : "Sigint";
                         });

TEST(Lifecycle, SegvWhileRunningExits255WithoutTheShutdown) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(gw.start_all(keys_for(gw, port))) << gw.error();
  const size_t interval_subscriptions = gw.manager().count_lines(kIntervalSubscribed);

  const ExitResult exit = gw.stop_service(SIGSEGV);
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 255);
  EXPECT_EQ(gw.service().count_lines("caught Segmentation fault signal, exit"), 1u) << gw.service().output();
  EXPECT_EQ(gw.service().count_lines(e2e::kDisconnectLine), 0u) << gw.service().output();
  EXPECT_EQ(gw.service().count_lines(e2e::kExitLine), 0u) << gw.service().output();
  // No component was stopped: the LoRa LAN bridge did not re-subscribe its interval.
  EXPECT_EQ(gw.manager().count_lines(kIntervalSubscribed), interval_subscriptions) << gw.manager().output();
}

TEST(Lifecycle, BusAbsentAtStartIsWaitedForThenTheManager) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(gw.start_service());
  auto& service = gw.service();

  // No bus: its start is retried about once a second, and nothing else runs.
  ASSERT_TRUE(service.wait_for_line(kBusRetry, 5000 * kSlowdown)) << service.output();
  const auto first = std::chrono::steady_clock::now();
  ASSERT_TRUE(service.wait_for_line(kBusRetry, 10000 * kSlowdown, 3)) << service.output();
  const auto two_pauses_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - first).count();
  EXPECT_GE(two_pauses_ms, 1800);
  EXPECT_LE(two_pauses_ms, 4000 * kSlowdown);
  for (const char* other : {"lora", "serial", "get config", "startup success"}) {
    EXPECT_EQ(service.count_lines(other), 0u) << other << "\n" << service.output();
  }

  // The bus comes, the manager not yet: the LoRa LAN start is retried now,
  // and nothing after it starts.
  ASSERT_TRUE(gw.start_bus()) << gw.error();
  ASSERT_TRUE(service.wait_for_line(kBusConnected, 5000 * kSlowdown)) << service.output();
  ASSERT_TRUE(service.wait_for_line(kLanRetry, 10000 * kSlowdown, 2)) << service.output();
  const size_t bus_retries = service.count_lines(kBusRetry);
  for (const char* later : {"create 127.0.0.1:18099", "create 127.0.0.1:16068", "gw_tc_serial_devices",
                            "startup success"}) {
    EXPECT_EQ(service.count_lines(later), 0u) << later << "\n" << service.output();
  }

  // Then the manager and the local services: the start-up completes and the
  // configured devices come up.
  ASSERT_TRUE(gw.start_manager(keys_for(gw, port))) << gw.error();
  ASSERT_TRUE(gw.start_lora_sim()) << gw.error();
  ASSERT_TRUE(gw.start_serial_peer("127.0.0.2")) << gw.error();
  ASSERT_TRUE(gw.wait_ready()) << gw.error();
  EXPECT_EQ(service.count_lines(kBusRetry), bus_retries) << service.output();
  std::string last;
  EXPECT_TRUE(gw.wait_status(connected(gw, port), 10000 * kSlowdown, &last)) << last;
  EXPECT_TRUE(lora_test::path_exists(gw.path("lora1")));

  e2e::expect_bounded_stop(gw);
}

TEST(Lifecycle, BusKilledWhileRunningEndsTheServiceInOrder) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(gw.start_all(keys_for(gw, port))) << gw.error();
  std::string last;
  ASSERT_TRUE(gw.wait_status(connected(gw, port), 10000 * kSlowdown, &last)) << last;

  gw.kill_bus();
  const ExitResult exit = gw.wait_service_exit();
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0);
  EXPECT_LT(exit.ms, kShutdownBoundMs);
  EXPECT_EQ(gw.service().count_lines("caught"), 0u) << gw.service().output();
  const auto lines = gw.service().lines();
  expect_in_order(lines, {e2e::kReadyLine, e2e::kDisconnectLine, e2e::kExitLine}, gw.service().output());
  EXPECT_NE(lines.back().find(e2e::kExitLine), std::string::npos) << gw.service().output();
}

TEST(Lifecycle, WithoutAManagerTheStartLoopsRetryAndSigtermStillEnds) {
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(gw.start_bus()) << gw.error();
  ASSERT_TRUE(gw.start_lora_sim()) << gw.error();
  ASSERT_TRUE(gw.start_serial_peer("127.0.0.2")) << gw.error();
  ASSERT_TRUE(gw.start_service());
  auto& service = gw.service();

  ASSERT_TRUE(service.wait_for_line(kLanRetry, 10000 * kSlowdown, 2)) << service.output();
  EXPECT_GE(service.count_lines("start, get config [gw_tc_loralan_mode] fail."), 2u) << service.output();
  for (const char* later : {"create 127.0.0.1:18099", "lora node", "gw_tc_serial_devices", "startup success"}) {
    EXPECT_EQ(service.count_lines(later), 0u) << later << "\n" << service.output();
  }
  // The bus side works all the same: the status method answers, with no devices.
  EXPECT_EQ(gw.status().value_or("(no answer)"), "");

  e2e::expect_bounded_stop(gw);
  expect_orderly_exit(gw, "caught Terminated signal, exit");
}

// A down packet interval that is not a number of milliseconds, at start or
// in a change, keeps the interval in force with one line: the start goes on,
// and every notification is answered, a refused value with its own code.
TEST(Lifecycle, AnIntervalThatIsNotANumberIsRefusedAndHoldsNothingBack) {
  Gateway gw;
  e2e::RemotePort port;
  Gateway::Keys keys = keys_for(gw, port);
  keys[kIntervalKey] = "abc";
  ASSERT_TRUE(gw.start_all(keys)) << gw.error();
  auto& service = gw.service();
  const std::string refused = std::string("[") + kIntervalKey + "] is not a number of milliseconds, keep ";
  EXPECT_EQ(service.count_lines("start, " + refused + "3500"), 1u) << service.output();
  EXPECT_EQ(service.count_lines("try again"), 0u) << service.output();
  EXPECT_TRUE(lora_test::path_exists(gw.path("lora1")));

  const std::string answered =
      std::string("notify_config, [") + kIntervalKey + "] to [iot.gateway.transparentchannel] result [";
  const std::pair<const char*, int> changes[] = {
      {"250", 0}, {"never", 100200}, {"99999999999", 100200}, {"-1", 100200}};
  for (const auto& [value, code] : changes) {
    const std::string answer = answered + std::to_string(code) + "].";
    const size_t before = gw.manager().count_lines(answer);
    ASSERT_EQ(gw.set_config(kIntervalKey, value), 0) << value;
    EXPECT_TRUE(gw.manager().wait_for_line(answer, 5000 * kSlowdown, before + 1)) << value << "\n"
                                                                                 << gw.manager().output();
  }
  EXPECT_EQ(service.count_lines(refused), 4u) << service.output();
  EXPECT_EQ(service.count_lines("deal_down_packet_interval_change_config, " + refused + "250"), 3u)
      << service.output();

  e2e::expect_bounded_stop(gw);
}

// The LoRa node start blocks in its exchange with a node service that never
// answers (10 s each time); the serial bridge, started after it, waits.
class SilentNodeService : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(port.opened());
    ASSERT_TRUE(gw.start_bus()) << gw.error();
    ASSERT_TRUE(gw.start_manager(keys_for(gw, port))) << gw.error();
    ASSERT_TRUE(gw.start_lora_sim({"--node-silent"})) << gw.error();
    ASSERT_TRUE(gw.start_serial_peer("127.0.0.2")) << gw.error();
    ASSERT_TRUE(gw.start_service());
    ASSERT_TRUE(gw.lora_sim().wait_for_line("node set_rf", 10000 * kSlowdown)) << gw.service().output();
  }
  void expect_no_serial_bridge() {
    EXPECT_EQ(gw.service().count_lines("gw_tc_serial_devices"), 0u) << gw.service().output();
    EXPECT_EQ(gw.service().count_lines("serial service start fail"), 0u) << gw.service().output();
    EXPECT_FALSE(lora_test::path_exists(gw.path("ttyV1")));
  }
  Gateway gw;
  e2e::RemotePort port;
};

// Later, a change of the RF settings waits on the bus callback thread for a
// node service gone silent again.  SIGTERM ends that wait: the thread leaves
// the provisioner before anything is deleted, and the exit is quick.
TEST_F(SilentNodeService, HoldsBackTheSerialBridgeUntilItAnswersAndAStopEndsALaterWait) {
  ASSERT_TRUE(gw.service().wait_for_line(kNodeRetry, 20000 * kSlowdown)) << gw.service().output();
  EXPECT_EQ(gw.service().count_lines("udp_node_send_and_recv, recv_udp fail"), 1u) << gw.service().output();
  // The LoRa LAN bridge, started before, runs; the bus is served.
  EXPECT_TRUE(lora_test::path_exists(gw.path("lora1")));
  EXPECT_EQ(gw.status().value_or("(no answer)"), "");
  expect_no_serial_bridge();

  ASSERT_TRUE(gw.lora_sim().write_input("node-result 0\n"));
  ASSERT_TRUE(gw.wait_ready()) << gw.error();
  std::string last;
  EXPECT_TRUE(gw.wait_status(connected(gw, port), 10000 * kSlowdown, &last)) << last;
  EXPECT_TRUE(lora_test::path_exists(gw.path("ttyV1")));

  ASSERT_TRUE(gw.lora_sim().write_input("node-result silent\n"));
  ASSERT_EQ(gw.set_config("gw_tc_loralan_rf", R"({"class-c":{"RX2Frequency":"868100000","TxPower":"14","SF":"9"}})"),
            0);
  ASSERT_TRUE(gw.lora_sim().wait_for_line("RX2Frequency=\"868100000\"", 5000 * kSlowdown)) << gw.lora_sim().output();
  ASSERT_TRUE(gw.wait_thread_in(SYS_recvfrom, 5000 * kSlowdown, false)) << gw.service().output();
  const ExitResult exit = gw.stop_service(SIGTERM);
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0);
  // The woken exchange and every loop end at once: within a second.
  EXPECT_LT(exit.ms, 1000 * kSlowdown) << gw.service().output();
  expect_orderly_exit(gw, "caught Terminated signal, exit");
  // Ended by the stop, before the bus connection closed, not by its time-out.
  expect_in_order(gw.service().lines(),
                  {"caught Terminated", "set_rf, udp_node_send_and_recv fail", e2e::kDisconnectLine},
                  gw.service().output());
}

// The signal is sent once the main thread sleeps in the receive: one that
// lands between the send and the receive is handled at once, but the receive
// then still waits out its 10 s.
TEST_F(SilentNodeService, SigtermEndsTheWaitForItsAnswer) {
  ASSERT_TRUE(gw.service().wait_for_line("udp_node_send_and_recv, sendto 127.0.0.1:16058", 5000 * kSlowdown))
      << gw.service().output();
  ASSERT_TRUE(gw.wait_thread_in(SYS_recvfrom, 5000 * kSlowdown));
  const ExitResult exit = gw.stop_service(SIGTERM);
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0);
  // Well inside the 10 s the exchange would otherwise wait.
  EXPECT_LT(exit.ms, 8000) << gw.service().output();
  expect_orderly_exit(gw, "caught Terminated signal, exit");
  expect_no_serial_bridge();
}

}  // namespace
