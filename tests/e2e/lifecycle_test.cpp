// The built service on a real gateway bus, from start to exit: the start-up
// order, signals, a bus that is late or dies, a manager that is late, a node
// service that never answers, a refused interval.  Shutdown is always orderly
// and bounded.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include <algorithm>
#include <chrono>

#include "tests/e2e/gateway.h"

using namespace e2e;

namespace {

const char* const kBusConnected =
    " I start: [iot.gateway.transparentchannel] connect to dbus server "
    "[unix:path=/tmp/var/run/mbusd/mbusd_socket] successs.";
const char* const kBusRetry = " W start: start, dbus connect fail, try again";
const char* const kLanRetry = " W start: start, lora lan start fail, try again";
const char* const kIntervalKey = "gw_tc_loralan_down_packet_interval";
const char* const kIntervalSubscribed = "subscribed to [gw_tc_loralan_down_packet_interval]";
const char* const kExitLine = " I main: transparent-channel exit.";
const char* const kDisconnectLine =
    " I stop: [iot.gateway.transparentchannel] disconnect from dbus server "
    "[unix:path=/tmp/var/run/mbusd/mbusd_socket] successs.";

Gateway::Keys keys_for(Gateway& gw, const RemotePort& port) {
  return {{"gw_tc_serial_devices", json_array({serial_device(gw.path("ttyV1"), "127.0.0.2", port.path())})},
          {"gw_tc_loralan_devices", json_array({lora_device(gw.path("lora1"), kEui)})},
          {"gw_tc_loralan_rf", kRf}};
}

std::string connected(Gateway& gw, const RemotePort& port) {
  return status_line(gw.path("ttyV1"), "127.0.0.2", port.path(), true);
}

// Every text in order, each on a later line than the one before.
void expect_in_order(tc_test::ChildProcess& process, const std::vector<std::string>& texts) {
  const auto lines = process.lines();
  auto at = lines.begin();
  for (const auto& text : texts) {
    at = std::find_if(at, lines.end(), [&](const std::string& line) { return line.find(text) != std::string::npos; });
    ASSERT_NE(at++, lines.end()) << "missing or out of order: " << text << "\n" << process.output();
  }
}

// The caught line (if any), the bus connection closed last of all the stops,
// and the exit line once, as the very last line.
void expect_orderly_exit(Gateway& gw, const ExitResult& exit, const std::string& caught, int64_t bound_ms) {
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0);
  EXPECT_LT(exit.ms, bound_ms) << gw.service().output();
  expect_in_order(gw.service(), {caught, kDisconnectLine, kExitLine});
  EXPECT_NE(gw.service().lines().back().find(kExitLine), std::string::npos) << gw.service().output();
  EXPECT_EQ(gw.service().count_lines(kExitLine), 1u);
}

// A signal while fully running.  SIGSEGV ends at once, with no component
// stopped: the LoRa LAN bridge, stopped, would re-subscribe its interval
// (with no callback, while the bus is still up).
TEST(Lifecycle, StartsInOrderIgnoresJobControlAndEndsAsEachSignalAsks) {
  const struct {
    int sig;
    const char* caught;
    int code;
  } signals[] = {{SIGTERM, " W system_signal_handler: caught Terminated signal, exit", 0},
                 {SIGINT, " W system_signal_handler: caught Interrupt signal, exit", 0},
                 {SIGSEGV, " W system_signal_handler: caught Segmentation fault signal, exit", 255}};
  for (const auto& s : signals) {
    SCOPED_TRACE(s.caught);
    Gateway gw;
    RemotePort port;
    ASSERT_TRUE(gw.start_all(keys_for(gw, port))) << gw.error();
    expect_in_order(gw.service(), {" I main: transparent-channel start.", kBusConnected,
                                   "start, get config gw_tc_loralan_mode:", "start, create 127.0.0.1:18099 success",
                                   "start, create 127.0.0.1:16068 success", "set_rf, result:0",
                                   "sync_abp_node, count:1,", "start, get config gw_tc_serial_devices:", kReadyLine});
    EXPECT_TRUE(gw.service().wait_for_line("threadProc, add device fd:", kWaitMs)) << gw.service().output();
    EXPECT_EQ(gw.service().count_lines("try again"), 0u) << gw.service().output();
    // Subscriptions in start-up order: the shared LoRa pair, the LoRa LAN's interval, the serial list.
    expect_in_order(gw.manager(), {"subscribed to [gw_tc_loralan_rf]", "subscribed to [gw_tc_loralan_devices]",
                                   kIntervalSubscribed, "subscribed to [gw_tc_serial_devices]"});
    EXPECT_TRUE(gw.wait_status(connected(gw, port)));

    for (int sig : {SIGHUP, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) ASSERT_TRUE(gw.service().signal(sig));
    EXPECT_FALSE(gw.service().wait_exit(500, nullptr)) << "ended by an ignored signal";
    EXPECT_EQ(gw.status().value_or("(no answer)"), connected(gw, port));

    const size_t subscriptions = gw.manager().count_lines(kIntervalSubscribed);
    const ExitResult exit = gw.stop_service(s.sig);
    EXPECT_EQ(gw.service().count_lines("caught"), 1u) << gw.service().output();
    if (s.code == 0) {
      expect_orderly_exit(gw, exit, s.caught, kShutdownBoundMs);
      EXPECT_TRUE(gw.manager().wait_for_line(kIntervalSubscribed, 5000, subscriptions + 1)) << gw.manager().output();
    } else {
      ASSERT_TRUE(exit.exited);
      EXPECT_EQ(exit.code, s.code);
      EXPECT_EQ(gw.service().count_lines(s.caught), 1u) << gw.service().output();
      EXPECT_EQ(gw.service().count_lines(kDisconnectLine) + gw.service().count_lines(kExitLine), 0u);
      EXPECT_EQ(gw.manager().count_lines(kIntervalSubscribed), subscriptions) << gw.manager().output();
    }
  }
}

// Each part the start needs comes late, in turn; at the end the bus dies.
TEST(Lifecycle, WaitsForTheBusThenTheManagerAndEndsWhenTheBusDies) {
  Gateway gw;
  RemotePort port;
  ASSERT_TRUE(gw.start_service());
  auto& service = gw.service();

  // No bus: its start is retried about once a second, and nothing else runs.
  ASSERT_TRUE(service.wait_for_line(kBusRetry, 5000 * kSlowdown)) << service.output();
  const auto first = std::chrono::steady_clock::now();
  ASSERT_TRUE(service.wait_for_line(kBusRetry, kWaitMs, 3)) << service.output();
  const auto two_pauses_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - first).count();
  EXPECT_GE(two_pauses_ms, 1800);
  EXPECT_LE(two_pauses_ms, 4000 * kSlowdown);
  for (const char* other : {"lora", "serial", "get config", "startup success"}) {
    EXPECT_EQ(service.count_lines(other), 0u) << other << "\n" << service.output();
  }

  // The bus, but no manager: every read fails, the LoRa LAN start is retried,
  // nothing after it starts, and the bus side answers with no devices.
  ASSERT_TRUE(gw.start_bus()) << gw.error();
  ASSERT_TRUE(service.wait_for_line(kLanRetry, kWaitMs, 2)) << service.output();
  EXPECT_GE(service.count_lines("start, get config [gw_tc_loralan_mode] fail."), 2u) << service.output();
  for (const char* later : {"create 127.0.0.1:18099", "lora node", "gw_tc_serial_devices", "startup success"}) {
    EXPECT_EQ(service.count_lines(later), 0u) << later << "\n" << service.output();
  }
  EXPECT_EQ(gw.status().value_or("(no answer)"), "");
  const size_t bus_retries = service.count_lines(kBusRetry);

  // The peer first: a link refused at the serial bridge's start is retried only a minute later.
  ASSERT_TRUE(gw.start_serial_peer("127.0.0.2") && gw.start_manager(keys_for(gw, port)) && gw.start_lora_sim() &&
              gw.wait_ready())
      << gw.error();
  EXPECT_EQ(service.count_lines(kBusRetry), bus_retries);
  EXPECT_TRUE(gw.wait_status(connected(gw, port)));
  EXPECT_TRUE(path_exists(gw.path("lora1")));

  gw.kill_bus();
  expect_orderly_exit(gw, gw.wait_service_exit(), kReadyLine, kShutdownBoundMs);
  EXPECT_EQ(service.count_lines("caught"), 0u) << service.output();
}

// A down packet interval that is not a number of milliseconds, at start or
// in a change, keeps the interval in force with one line: the start goes on,
// and every notification is answered, a refused value with its own code.
TEST(Lifecycle, AnIntervalThatIsNotANumberIsRefusedAndHoldsNothingBack) {
  Gateway gw;
  RemotePort port;
  Gateway::Keys keys = keys_for(gw, port);
  keys[kIntervalKey] = "abc";
  ASSERT_TRUE(gw.start_all(keys)) << gw.error();
  auto& service = gw.service();
  const std::string refused = std::string("[") + kIntervalKey + "] is not a number of milliseconds, keep ";
  EXPECT_EQ(service.count_lines("start, " + refused + "3500"), 1u) << service.output();
  EXPECT_EQ(service.count_lines("try again"), 0u) << service.output();

  const std::string answered =
      std::string("notify_config, [") + kIntervalKey + "] to [iot.gateway.transparentchannel] result [";
  const std::pair<const char*, int> changes[] = {{"250", 0}, {"never", 100200}, {"99999999999", 100200}, {"-1", 100200}};
  for (const auto& [value, code] : changes) {
    const std::string answer = answered + std::to_string(code) + "].";
    const size_t before = gw.manager().count_lines(answer);
    ASSERT_EQ(gw.set_config(kIntervalKey, value), 0) << value;
    EXPECT_TRUE(gw.manager().wait_for_line(answer, kWaitMs, before + 1)) << value << "\n" << gw.manager().output();
  }
  EXPECT_EQ(service.count_lines(refused), 4u) << service.output();
  EXPECT_EQ(service.count_lines("deal_down_packet_interval_change_config, " + refused + "250"), 3u)
      << service.output();
  expect_bounded_stop(gw);
}

// The LoRa node start blocks in its exchange with a node service that never
// answers (10 s each time), and the serial bridge, started after it, waits.
// A stop ends that wait on the main thread at start-up, or later, when a
// change of the RF settings waits on the bus callback thread for a node
// service gone silent again: the thread leaves the provisioner before
// anything is deleted, and the exit is quick.
TEST(Lifecycle, ASilentNodeServiceHoldsBackTheSerialBridgeAndAStopEndsTheWait) {
  for (const bool at_start : {true, false}) {
    SCOPED_TRACE(at_start ? "at start-up" : "later");
    Gateway gw;
    RemotePort port;
    ASSERT_TRUE(gw.start_bus() && gw.start_manager(keys_for(gw, port)) && gw.start_lora_sim({"--node-silent"}) &&
                gw.start_serial_peer("127.0.0.2") && gw.start_service())
        << gw.error();
    if (!at_start) {
      ASSERT_TRUE(gw.service().wait_for_line(" W start: start, lora node start fail, try again", 2 * kWaitMs))
          << gw.service().output();
      EXPECT_EQ(gw.service().count_lines("udp_node_send_and_recv, recv_udp fail"), 1u) << gw.service().output();
      // The LoRa LAN bridge, started before, runs; the bus is served; no serial bridge yet.
      EXPECT_TRUE(path_exists(gw.path("lora1")));
      EXPECT_EQ(gw.status().value_or("(no answer)"), "");
      EXPECT_EQ(gw.service().count_lines("gw_tc_serial_devices"), 0u) << gw.service().output();
      EXPECT_FALSE(path_exists(gw.path("ttyV1")));

      ASSERT_TRUE(gw.lora_sim().write_input("node-result 0\n"));
      ASSERT_TRUE(gw.wait_ready()) << gw.error();
      EXPECT_TRUE(gw.wait_status(connected(gw, port)));
      ASSERT_TRUE(gw.lora_sim().write_input("node-result silent\n"));
      ASSERT_EQ(gw.set_config("gw_tc_loralan_rf", R"({"class-c":{"RX2Frequency":"868100000","TxPower":"14","SF":"9"}})"),
                0);
      ASSERT_TRUE(gw.lora_sim().wait_for_line("RX2Frequency=\"868100000\"", kWaitMs)) << gw.lora_sim().output();
    }
    // The signal goes once the thread sleeps in the receive: one that lands
    // before it is handled at once, but the receive would wait out its 10 s.
    ASSERT_TRUE(gw.wait_thread_in(SYS_recvfrom, at_start)) << gw.service().output();
    expect_orderly_exit(gw, gw.stop_service(SIGTERM), "caught Terminated signal, exit", at_start ? 8000 : 1000 * kSlowdown);
    if (at_start) {
      EXPECT_EQ(gw.service().count_lines("gw_tc_serial_devices"), 0u) << gw.service().output();
      EXPECT_FALSE(path_exists(gw.path("ttyV1")));
    } else {
      // Ended by the stop, before the bus connection closed, not by its time-out.
      expect_in_order(gw.service(), {"caught Terminated", "set_rf, udp_node_send_and_recv fail", kDisconnectLine});
    }
  }
}

}  // namespace
