// The connection handle on a private bus: connecting, blocking and
// asynchronous calls, signals, watchdog feeding and the bus going away.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "tests/common/dbus/test_server.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace std::chrono;
using namespace Zentrova::Iot::DBus;
using tc_test::cpu_ms;
using tc_test::LogCaptureScope;
using tc_test::TestServer;

namespace {

const char* const kPeer = "tc.test.peer";

long since_ms(steady_clock::time_point start) {
  return static_cast<long>(duration_cast<milliseconds>(steady_clock::now() - start).count());
}

CDBusMethodCall call_peer(const char* member) { return CDBusMethodCall(kPeer, "/tc/test/peer", kPeer, member); }

class Handle : public tc_test::PeerAndClient {
 protected:
  // The peer keeps the calls named "hold" unanswered.
  void hold_calls() {
    peer->on_method([this](CDBusMethodCall& call, CDBusMethodReturn&, bool& sendReply) {
      sendReply = false;
      std::lock_guard<std::mutex> lock(held_mutex);
      held.push_back(call);
    });
  }
  size_t held_count() {
    std::lock_guard<std::mutex> lock(held_mutex);
    return held.size();
  }
  bool wait_held(size_t n) {
    for (int i = 0; i < 500 && held_count() < n; ++i) std::this_thread::sleep_for(milliseconds(10));
    return held_count() >= n;
  }

  std::mutex held_mutex;
  std::vector<CDBusMethodCall> held;
};

// Records what asynchronous delegates receive.
struct AsyncRecorder {
  void on_reply(uint32_t status, CDBusMethodReturn& reply, uint64_t context) {
    int32_t value = -1;
    reply.get_int32(value);
    std::lock_guard<std::mutex> lock(mutex);
    results.push_back({status, value, context, reply.get_message() != nullptr});
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mutex);
    return results.size();
  }
  struct Result {
    uint32_t status;
    int32_t value;
    uint64_t context;
    bool has_message;
  };
  std::mutex mutex;
  std::vector<Result> results;
};

// The peer answers "echo" with its first argument after the number of
// microseconds given as the second.
void echo_after_delay(TestServer& peer) {
  peer.on_method([](CDBusMethodCall& call, CDBusMethodReturn& reply, bool&) {
    int32_t tag = 0, delay_us = 0;
    call.get_int32(tag);
    call.get_int32(delay_us);
    std::this_thread::sleep_for(microseconds(delay_us));
    reply.set_int32(tag);
  });
}

// A reply that comes as its call times out is either taken or dropped with
// its trace line; it never reaches a later call.
TEST_F(Handle, RepliesRacingTheirTimeOutAreTakenOrDroppedNeverMisdelivered) {
  log.clear();
  echo_after_delay(*peer);
  struct Case {
    uint32_t timeout_ms;
    int32_t delay_us;
    int repeat;
  };
  // Clearly late first, then around the time-out, then in time.
  const Case cases[] = {{300, 600000, 1}, {20, 17000, 8}, {20, 20000, 8}, {20, 23000, 8}, {3000, 0, 1}};
  int32_t tag = 0;
  size_t timeouts = 0;
  for (const Case& c : cases) {
    for (int i = 0; i < c.repeat; ++i) {
      SCOPED_TRACE("timeout " + std::to_string(c.timeout_ms) + " ms, reply after " + std::to_string(c.delay_us) + " us");
      CDBusMethodCall call = call_peer("echo");
      call.set_int32(++tag);
      call.set_int32(c.delay_us);
      CDBusMethodReturn reply;
      const auto start = steady_clock::now();
      const int32_t result = client->block_call(call, reply, c.timeout_ms);
      const unsigned serial = dbus_message_get_serial(call.get_message());
      if (result == 0) {
        int32_t echoed = -1;
        EXPECT_TRUE(reply.get_int32(echoed));
        EXPECT_EQ(echoed, tag);
        continue;
      }
      ASSERT_EQ(result, -3);
      ++timeouts;
      EXPECT_GE(since_ms(start), static_cast<long>(c.timeout_ms));
      EXPECT_EQ(log.count("dbus wait response timeout, close:0, timeout:" + std::to_string(c.timeout_ms) +
                          ", client_serial:" + std::to_string(serial) + ", member:echo."),
                1u);
      if (c.delay_us < 100000) continue;
      const std::string dropped = "handle_return_method, no match, reply serial:" + std::to_string(serial) + ".";
      ASSERT_TRUE(log.wait_for(dropped, 3000)) << log.dump();
      for (const auto& line : log.lines()) {
        if (line.text == dropped) {
          EXPECT_EQ(line.level, 0);
        }
      }
    }
  }
  EXPECT_GE(timeouts, 1u);
  EXPECT_LE(log.count_prefix("handle_return_method, no match"), timeouts);
  EXPECT_EQ(log.count_prefix("dbus wait response timeout"), timeouts);
}

// A stop while a bus handler waits in a blocking call of its own: the call
// returns -4 at once, the handler ends, and so does the worker.
TEST_F(Handle, StopReleasesABlockedHandlerAtOnceAndClosesAsyncCalls) {
  log.clear();
  hold_calls();
  AsyncRecorder recorder;
  CDBusMethodCall async = call_peer("hold");
  ASSERT_EQ(client->unblock_call(async, 99, CDBusAsyncDelegate(&recorder, &AsyncRecorder::on_reply)), 0);
  CDBusMethodCall call = call_peer("hold");
  std::promise<int32_t> handled;
  client->on_method([&](CDBusMethodCall&, CDBusMethodReturn&, bool&) {
    CDBusMethodReturn reply;
    handled.set_value(client->block_call(call, reply, 20000));
  });
  CDBusMethodCall relay("tc.test.client", "/tc/test/client", "tc.test.client", "relay");
  ASSERT_EQ(peer->unblock_call(relay, 0, CDBusAsyncDelegate()), 0);
  ASSERT_TRUE(wait_held(2));
  const auto start = steady_clock::now();
  client->disconnect();
  const long took = since_ms(start);
  auto result = handled.get_future();
  ASSERT_EQ(result.wait_for(seconds(0)), std::future_status::ready);
  EXPECT_EQ(result.get(), -4);
  // Far below the 3 s after which a thread that sleeps through its stop is cancelled.
  EXPECT_LT(took, 1000) << "stopped after " << took << " ms";
  EXPECT_EQ(log.count("dbus wait response timeout, close:1, timeout:20000, client_serial:" +
                      std::to_string(dbus_message_get_serial(call.get_message())) + ", member:hold."),
            1u)
      << log.dump();
  ASSERT_EQ(recorder.count(), 1u);
  EXPECT_EQ(recorder.results[0].status, 1u);
  EXPECT_EQ(recorder.results[0].context, 99u);
  EXPECT_FALSE(recorder.results[0].has_message);
}

// A large send leaves output queued for the reader to write as the socket
// drains; calls that arrive meanwhile are answered, and the send completes
// whether or not anything else wakes the reader.
TEST_F(Handle, CallsArrivingWhileALargeSendIsInFlightAreAnswered) {
  peer->on_method([](CDBusMethodCall& call, CDBusMethodReturn& reply, bool&) {
    std::string text;
    call.get_string(text);
    reply.set_int32(static_cast<int32_t>(text.size()));
  });
  client->on_method([](CDBusMethodCall&, CDBusMethodReturn& reply, bool&) { reply.set_string("pong"); });
  const std::string big(4 << 20, 'x');
  for (int incoming : {0, 20}) {
    SCOPED_TRACE(std::to_string(incoming) + " calls arriving meanwhile");
    auto sent = std::async(std::launch::async, [&] {
      CDBusMethodCall call = call_peer("size");
      call.set_string(big);
      CDBusMethodReturn reply;
      int32_t size = -1;
      const int32_t result = client->block_call(call, reply, 20000);
      reply.get_int32(size);
      return std::make_pair(result, size);
    });
    for (int i = 0; i < incoming; ++i) {
      CDBusMethodCall ping("tc.test.client", "/tc/test/client", "tc.test.client", "ping");
      CDBusMethodReturn pong;
      std::string text;
      ASSERT_EQ(peer->block_call(ping, pong, 5000), 0) << i;
      EXPECT_TRUE(pong.get_string(text) && text == "pong") << i;
    }
    const auto done = sent.get();
    EXPECT_EQ(done.first, 0);
    EXPECT_EQ(done.second, static_cast<int32_t>(big.size()));
  }
}

TEST_F(Handle, BusKilledEndsTheReaderOnceAndLeavesBlockedCallsToTheirTimeOut) {
  log.clear();
  hold_calls();
  CDBusMethodCall call = call_peer("hold");
  auto blocked = std::async(std::launch::async, [&] {
    CDBusMethodReturn reply;
    const auto start = steady_clock::now();
    const int32_t result = client->block_call(call, reply, 1500);
    return std::make_pair(result, since_ms(start));
  });
  ASSERT_TRUE(wait_held(1));
  bus.kill();
  ASSERT_TRUE(client->wait([&] { return !client->errors.empty(); }, 3000));
  const auto done = blocked.get();
  EXPECT_EQ(done.first, -3) << "a call pending when the reader ends on its own waits out its time-out";
  EXPECT_GE(done.second, 1400);
  EXPECT_EQ(client->read<std::vector<int32_t>>([&] { return client->errors; }), std::vector<int32_t>{-1});
  EXPECT_EQ(log.count("threadProc, dbus_connection_read_write bret:0."), 2u) << "client and peer";
  EXPECT_EQ(log.count("threadProc, dbus end loop read message."), 2u) << log.dump();

  // Nothing spins once the bus is gone.
  const long cpu = cpu_ms();
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_LT(cpu_ms() - cpu, 300) << "CPU time used while idle";
  EXPECT_EQ(client->read<size_t>([&] { return client->errors.size(); }), 1u);

  // disconnect() now does nothing; the bus coming back can be joined again.
  log.clear();
  client->disconnect();
  EXPECT_TRUE(log.lines().empty()) << log.dump();
  ASSERT_TRUE(bus.start(bus.socket_path())) << bus.error();
  ASSERT_EQ(client->connect(), 0);
  CDBusMethodCall absent("tc.test.absent", "/tc/test", "tc.test.iface", "ping");
  CDBusMethodReturn reply;
  EXPECT_EQ(client->block_call(absent, reply, 3000), -5) << "the bus itself answers again, with an error";
  ASSERT_NE(reply.get_message(), nullptr);
  EXPECT_FALSE(reply.is_method_return());
  EXPECT_STREQ(dbus_message_get_error_name(reply.get_message()), DBUS_ERROR_SERVICE_UNKNOWN);
  EXPECT_EQ(log.count("handle_error_method, name:org.freedesktop.DBus.Error.ServiceUnknown."), 1u) << log.dump();
}

}  // namespace
