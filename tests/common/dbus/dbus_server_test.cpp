// CDBusServer on a private bus: blocking and asynchronous calls, replies
// racing their time-outs, stops during calls, large sends, the bus going
// away, and the callback worker's order, reply suppression and shutdown.

#include "common/dbus/src/dbus_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace std::chrono;
using namespace Zentrova::Iot::DBus;
using tc_test::eventually;

namespace {

const char* const kPeer = "tc.test.peer";

long since_ms(steady_clock::time_point start) {
  return static_cast<long>(duration_cast<milliseconds>(steady_clock::now() - start).count());
}

// Method calls go to a replaceable function; bus errors are recorded.
class TestServer : public CDBusServer {
 public:
  using MethodFn = std::function<void(CDBusMethodCall&, CDBusMethodReturn&, bool&)>;
  TestServer(const std::string& address, const std::string& name) : CDBusServer(address, name, {}) {}
  ~TestServer() override { disconnect(); }
  void on_method(MethodFn fn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_method = std::move(fn);
  }
  void message_method(CDBusMethodCall& call, CDBusMethodReturn& reply, bool& sendReply) override {
    MethodFn fn;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      fn = m_method;
    }
    if (fn) fn(call, reply, sendReply);
  }
  void message_signal(CDBusSignal&) override {}
  void message_error(int32_t status) override {
    ++errors;
    last_error = status;
  }
  std::atomic<int> errors{0};
  std::atomic<int32_t> last_error{0};

 private:
  std::mutex m_mutex;
  MethodFn m_method;
};

// Records what asynchronous delegates receive: the string, or the status and context.
struct Replies {
  void on_reply(uint32_t status, CDBusMethodReturn& reply, uint64_t context) {
    std::string text;
    reply.get_string(text);
    std::lock_guard<std::mutex> lock(mutex);
    got.push_back(status ? "status " + std::to_string(status) + " context " + std::to_string(context) +
                               (reply.get_message() ? " with a message" : "")
                         : text);
  }
  std::vector<std::string> get() {
    std::lock_guard<std::mutex> lock(mutex);
    return got;
  }
  std::mutex mutex;
  std::vector<std::string> got;
};

CDBusMethodCall call_peer(const char* member) { return CDBusMethodCall(kPeer, "/tc/test/peer", kPeer, member); }

class Server : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    peer = std::make_unique<TestServer>(bus.address(), kPeer);
    ASSERT_EQ(peer->connect(), 0);
    client = std::make_unique<TestServer>(bus.address(), "tc.test.client");
    ASSERT_EQ(client->connect(), 0);
    log.clear();
  }
  void TearDown() override {
    client.reset();
    peer.reset();
    EXPECT_EQ(log.count_prefix("stop, DBus_"), 0u) << "a bus thread slept through its stop";
  }
  // The peer keeps every call unanswered.
  void hold_calls() {
    peer->on_method([this](CDBusMethodCall&, CDBusMethodReturn&, bool& sendReply) {
      sendReply = false;
      ++held;
    });
  }
  // First, so it outlives every thread that may still log.
  tc_test::LogCaptureScope log;
  tc_test::DBusDaemon bus;
  std::unique_ptr<TestServer> peer;
  std::unique_ptr<TestServer> client;
  std::atomic<int> held{0};
};

// A reply that comes as its call times out is either taken or dropped with
// its trace line; it never reaches a later call.
TEST_F(Server, RepliesRacingTheirTimeOutAreTakenOrDroppedNeverMisdelivered) {
  // "echo" answers its first argument after the second's microseconds.
  peer->on_method([](CDBusMethodCall& call, CDBusMethodReturn& reply, bool&) {
    int32_t tag = 0, delay_us = 0;
    call.get_int32(tag);
    call.get_int32(delay_us);
    std::this_thread::sleep_for(microseconds(delay_us));
    reply.set_int32(tag);
  });
  // Time-out (ms), reply delay (us), repeats: clearly late first, then around the time-out, then in time.
  const std::tuple<uint32_t, int32_t, int> cases[] = {
      {300, 600000, 1}, {20, 17000, 8}, {20, 20000, 8}, {20, 23000, 8}, {3000, 0, 1}};
  int32_t tag = 0;
  size_t timeouts = 0;
  for (const auto& [timeout_ms, delay_us, repeat] : cases) {
    for (int i = 0; i < repeat; ++i) {
      SCOPED_TRACE("timeout " + std::to_string(timeout_ms) + " ms, reply after " + std::to_string(delay_us) + " us");
      CDBusMethodCall call = call_peer("echo");
      call.set_int32(++tag);
      call.set_int32(delay_us);
      CDBusMethodReturn reply;
      const auto start = steady_clock::now();
      const int32_t result = client->block_call(call, reply, timeout_ms);
      const std::string serial = std::to_string(dbus_message_get_serial(call.get_message()));
      int32_t echoed = -1;
      if (result == 0) {
        EXPECT_TRUE(reply.get_int32(echoed) && echoed == tag) << echoed;
        continue;
      }
      ASSERT_EQ(result, -3);
      ++timeouts;
      EXPECT_GE(since_ms(start), static_cast<long>(timeout_ms));
      EXPECT_EQ(log.count("dbus wait response timeout, close:0, timeout:" + std::to_string(timeout_ms) +
                          ", client_serial:" + serial + ", member:echo."),
                1u);
      if (delay_us < 100000) continue;
      const std::string dropped = "handle_return_method, no match, reply serial:" + serial + ".";
      ASSERT_TRUE(log.wait_for(dropped, 3000)) << log.dump();
      for (const auto& line : log.lines()) EXPECT_TRUE(line.text != dropped || line.level == 0);
    }
  }
  EXPECT_GE(timeouts, 1u);
  EXPECT_EQ(log.count_prefix("dbus wait response timeout"), timeouts);
}

// A stop while a bus handler waits in a blocking call of its own: the call
// returns -4 at once, the handler ends, and so does the worker; an
// asynchronous call still open is closed with status 1 and no message.
TEST_F(Server, StopReleasesABlockedHandlerAtOnceAndClosesAsyncCalls) {
  hold_calls();
  Replies replies;
  CDBusMethodCall async = call_peer("hold");
  ASSERT_EQ(client->unblock_call(async, 99, CDBusAsyncDelegate(&replies, &Replies::on_reply)), 0);
  CDBusMethodCall call = call_peer("hold");
  std::promise<int32_t> handled;
  client->on_method([&](CDBusMethodCall&, CDBusMethodReturn&, bool&) {
    CDBusMethodReturn reply;
    handled.set_value(client->block_call(call, reply, 20000));
  });
  CDBusMethodCall relay("tc.test.client", "/tc/test/client", "tc.test.client", "relay");
  ASSERT_EQ(peer->unblock_call(relay, 0, CDBusAsyncDelegate()), 0);
  ASSERT_TRUE(eventually([&] { return held == 2; }));
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
  EXPECT_EQ(replies.get(), std::vector<std::string>{"status 1 context 99"});
}

// A large send leaves output queued for the reader to write as the socket
// drains; calls that arrive meanwhile are answered, and the send completes
// whether or not anything else wakes the reader.
TEST_F(Server, CallsArrivingWhileALargeSendIsInFlightAreAnswered) {
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
      ASSERT_EQ(peer->block_call(ping, pong, 5000), 0) << i;
    }
    EXPECT_EQ(sent.get(), std::make_pair(0, static_cast<int32_t>(big.size())));
  }
}

TEST_F(Server, BusKilledEndsTheReaderOnceAndLeavesBlockedCallsToTheirTimeOut) {
  hold_calls();
  CDBusMethodCall call = call_peer("hold");
  auto blocked = std::async(std::launch::async, [&] {
    CDBusMethodReturn reply;
    const auto start = steady_clock::now();
    const int32_t result = client->block_call(call, reply, 1500);
    return std::make_pair(result, since_ms(start));
  });
  ASSERT_TRUE(eventually([&] { return held == 1; }));
  bus.kill();
  ASSERT_TRUE(eventually([&] { return client->errors > 0; }));
  const auto done = blocked.get();
  EXPECT_EQ(done.first, -3) << "a call pending when the reader ends on its own waits out its time-out";
  EXPECT_GE(done.second, 1400);
  EXPECT_EQ(log.count("threadProc, dbus_connection_read_write bret:0."), 2u) << "client and peer";
  EXPECT_EQ(log.count("threadProc, dbus end loop read message."), 2u) << log.dump();

  // Nothing spins once the bus is gone, and the error came once.
  const long cpu = tc_test::cpu_ms();
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_LT(tc_test::cpu_ms() - cpu, 300) << "CPU time used while idle";
  EXPECT_EQ(client->errors, 1);
  EXPECT_EQ(client->last_error, -1);
}

// One call at a time, in arrival order; a throwing handler sends an empty
// reply and one line (a silenced one none: held calls); calls still queued at shutdown
// are released with the worker (the sanitizer build's leak check sees a
// lost message reference).
TEST_F(Server, TheWorkerHandlesCallsInOrderAnswersThrowsAndReleasesTheRestAtShutdown) {
  std::atomic<int> slow{0};
  peer->on_method([&](CDBusMethodCall& call, CDBusMethodReturn& reply, bool&) {
    std::string tag;
    call.get_string(tag);
    if (tag == "slow") ++slow;
    if (tag == "first" || tag == "slow") std::this_thread::sleep_for(milliseconds(300));  // the next waits
    if (tag == "throw") throw std::runtime_error("boom");
    reply.set_string(tag);
  });
  Replies replies;
  for (const char* tag : {"first", "second", "throw", "third"}) {
    CDBusMethodCall call = call_peer("work");
    call.set_string(tag);
    ASSERT_EQ(client->unblock_call(call, 0, CDBusAsyncDelegate(&replies, &Replies::on_reply)), 0);
  }
  ASSERT_TRUE(eventually([&] { return replies.get().size() == 4; })) << replies.get().size();
  EXPECT_EQ(replies.get(), (std::vector<std::string>{"first", "second", "", "third"}));
  EXPECT_EQ(log.count("threadProc, handler ended by an exception: boom."), 1u) << log.dump();

  for (int i = 0; i < 4; ++i) {
    CDBusMethodCall call = call_peer("slow");
    call.set_string("slow");
    ASSERT_EQ(client->unblock_call(call, 0, CDBusAsyncDelegate()), 0);
  }
  ASSERT_TRUE(eventually([&] { return slow == 1; }));
  std::this_thread::sleep_for(milliseconds(150));  // the other three are queued by now
  peer.reset();
  EXPECT_LT(slow.load(), 4);
}

}  // namespace
