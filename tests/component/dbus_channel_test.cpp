// CDBusChannel on a private bus: routing by member name, the empty answer to
// unknown methods, registration from a handler, and the error callback.

#include "component/dbus_channel.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;

namespace {

// Handlers bound the way the service binds them: member functions.
struct Handlers {
  void echo(CDBusMethodCall& call, CDBusMethodReturn& reply) {
    std::string text;
    call.get_string(text);
    reply.set_string("echo:" + text);
  }
  void register_more(CDBusMethodCall&, CDBusMethodReturn& reply) {
    channel->register_method("added", CDBusMethodHandler(this, &Handlers::echo));
    reply.set_string("registered");
  }
  void on_error(int32_t status) {
    std::lock_guard<std::mutex> lock(mutex);
    errors.push_back(status);
  }
  std::vector<int32_t> get_errors() {
    std::lock_guard<std::mutex> lock(mutex);
    return errors;
  }
  CDBusChannel* channel = nullptr;
  std::mutex mutex;
  std::vector<int32_t> errors;
};

class Channel : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(bus.start()) << bus.error(); }
  // The reply's string, "(empty)" for a return without one, or the call's error.
  std::string call(CDBusChannel& from, const std::string& member) {
    CDBusMethodCall request("tc.test.channel", "/tc/test/channel", "tc.test.any", member);
    request.set_string("x");
    CDBusMethodReturn reply;
    const int32_t result = from.block_call(request, reply, 3000);
    std::string text = "(empty)";
    if (result != 0 || !reply.is_method_return()) return "error " + std::to_string(result);
    reply.get_string(text);
    return text;
  }
  // First, so it outlives every thread that may still log.
  tc_test::LogCaptureScope log;
  tc_test::DBusDaemon bus;
  Handlers handlers;
};

TEST_F(Channel, MethodsAreRoutedByMemberAndUnknownOnesGetAnEmptyReturn) {
  CDBusChannel channel(bus.address(), "tc.test.channel", "/tc/test/channel", {});
  handlers.channel = &channel;
  channel.register_method("echo", CDBusMethodHandler(&handlers, &Handlers::echo));
  channel.register_method("quiet", CDBusMethodHandler());
  channel.register_method("register", CDBusMethodHandler(&handlers, &Handlers::register_more));
  ASSERT_EQ(channel.start(), 1);
  CDBusChannel client(bus.address(), "tc.test.client", "/tc/test/client", {});
  client.set_error_callback(CDBusErrorCallback(&handlers, &Handlers::on_error));
  client.register_signal("NameAcquired", CDBusSignalHandler());
  ASSERT_EQ(client.start(), 1);
  log.clear();
  EXPECT_EQ(call(client, "echo"), "echo:x");
  EXPECT_EQ(call(client, "nope"), "(empty)") << "answered, not an error";
  EXPECT_EQ(log.count("message_request, recvice unknow method, member:nope."), 1u) << log.dump();
  EXPECT_EQ(call(client, "quiet"), "(empty)");
  EXPECT_EQ(log.count_prefix("message_request, recvice unknow method"), 1u) << "an empty handler is withdrawn quietly";
  // A handler that registers another one while it runs does not deadlock.
  EXPECT_EQ(call(client, "register"), "registered");
  EXPECT_EQ(call(client, "added"), "echo:x");
  // The second registration of a member wins.
  channel.register_method("echo", CDBusMethodHandler(&handlers, &Handlers::register_more));
  EXPECT_EQ(call(client, "echo"), "registered");
}

TEST_F(Channel, LostBusFiresTheErrorCallbackOrLogsItsAbsenceOnceAndNothingSpins) {
  CDBusChannel quiet(bus.address(), "tc.test.channel", "/tc/test/channel", {});  // without an error callback
  ASSERT_EQ(quiet.start(), 1);
  CDBusChannel handled(bus.address(), "tc.test.handled", "/tc/test/handled", {});
  handled.set_error_callback(CDBusErrorCallback(&handlers, &Handlers::on_error));
  ASSERT_EQ(handled.start(), 1);
  log.clear();
  bus.kill();
  ASSERT_TRUE(log.wait_for("message_error, no dbus error callback.", 3000)) << log.dump();
  ASSERT_TRUE(tc_test::eventually([&] { return !handlers.get_errors().empty(); }));
  const long cpu = tc_test::cpu_ms();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(handlers.get_errors(), std::vector<int32_t>{-1});
  EXPECT_EQ(log.count("message_error, no dbus error callback."), 1u);
  EXPECT_LT(tc_test::cpu_ms() - cpu, 300) << "CPU time used while idle after the bus vanished";
}

}  // namespace
