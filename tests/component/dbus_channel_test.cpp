// CDBusChannel on a private bus: start and stop, routing by member name, the
// empty answer to unknown methods, and the error callback.

#include "component/dbus_channel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace std::chrono;
using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;
using tc_test::cpu_ms;
using tc_test::LogCaptureScope;

namespace {

const char* const kName = "tc.test.channel";

// Handlers bound the way the service binds them: member functions.
struct Handlers {
  void echo(CDBusMethodCall& call, CDBusMethodReturn& reply) {
    std::string text;
    call.get_string(text);
    reply.set_string(prefix + text);
  }
  void register_more(CDBusMethodCall&, CDBusMethodReturn& reply) {
    channel->register_method("added", CDBusMethodHandler(this, &Handlers::echo));
    reply.set_int32(1);
  }
  void on_error(int32_t status) {
    std::lock_guard<std::mutex> lock(mutex);
    errors.push_back(status);
  }
  template <typename T>
  std::vector<T> get(const std::vector<T>& v) {
    std::lock_guard<std::mutex> lock(mutex);
    return v;
  }
  const std::string prefix = "echo:";
  CDBusChannel* channel = nullptr;
  std::mutex mutex;
  std::vector<int32_t> errors;
};

void ignore_error(int32_t) {}

class Channel : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    channel = std::make_unique<CDBusChannel>(bus.address(), kName, "/tc/test/channel", std::vector<std::string>{});
    handlers.channel = channel.get();
    client = std::make_unique<CDBusChannel>(bus.address(), "tc.test.client", "/tc/test/client",
                                            std::vector<std::string>{});
    client->set_error_callback(CDBusErrorCallback(&ignore_error));
    client->register_signal("NameAcquired", CDBusSignalHandler());
    ASSERT_EQ(client->start(), 1);
  }
  int32_t call(const std::string& member, CDBusMethodReturn& reply, const std::string& arg = "x") {
    CDBusMethodCall request(kName, "/tc/test/channel", "tc.test.any", member);
    request.set_string(arg);
    return client->block_call(request, reply, 3000);
  }
  // First, so it outlives every thread that may still log.
  LogCaptureScope log;
  tc_test::DBusDaemon bus;
  Handlers handlers;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CDBusChannel> client;
};

TEST_F(Channel, MethodsAreRoutedByMemberAndUnknownOnesGetAnEmptyReturn) {
  channel->register_method("echo", CDBusMethodHandler(&handlers, &Handlers::echo));
  channel->register_method("quiet", CDBusMethodHandler());
  channel->register_method("register", CDBusMethodHandler(&handlers, &Handlers::register_more));
  ASSERT_EQ(channel->start(), 1);
  log.clear();
  std::string text;

  CDBusMethodReturn echoed;
  ASSERT_EQ(call("echo", echoed, "hi"), 0);
  EXPECT_TRUE(echoed.get_string(text));
  EXPECT_EQ(text, "echo:hi");

  CDBusMethodReturn unknown;
  ASSERT_EQ(call("nope", unknown), 0) << "answered, not an error";
  EXPECT_TRUE(unknown.is_method_return());
  EXPECT_FALSE(unknown.get_string(text)) << "no arguments";
  EXPECT_EQ(log.count("message_request, recvice unknow method, member:nope."), 1u) << log.dump();

  log.clear();
  CDBusMethodReturn quiet;
  ASSERT_EQ(call("quiet", quiet), 0);
  EXPECT_TRUE(quiet.is_method_return());
  EXPECT_EQ(log.count_prefix("message_request, recvice unknow method"), 0u) << "an empty handler is withdrawn quietly";

  // A handler that registers another one while it runs does not deadlock.
  CDBusMethodReturn registered;
  ASSERT_EQ(call("register", registered), 0);
  CDBusMethodReturn added;
  ASSERT_EQ(call("added", added, "x"), 0);
  EXPECT_TRUE(added.get_string(text));
  EXPECT_EQ(text, "echo:x");

  // The second registration of a member wins.
  channel->register_method("echo", CDBusMethodHandler(&handlers, &Handlers::register_more));
  CDBusMethodReturn replaced;
  ASSERT_EQ(call("echo", replaced), 0);
  int32_t one = 0;
  EXPECT_TRUE(replaced.get_int32(one));
  EXPECT_EQ(one, 1);
}

TEST_F(Channel, LostBusFiresTheErrorCallbackOrLogsItsAbsenceOnceAndNothingSpins) {
  ASSERT_EQ(channel->start(), 1);  // without an error callback
  CDBusChannel handled(bus.address(), "tc.test.handled", "/tc/test/handled", {});
  handled.set_error_callback(CDBusErrorCallback(&handlers, &Handlers::on_error));
  ASSERT_EQ(handled.start(), 1);
  log.clear();
  bus.kill();
  ASSERT_TRUE(log.wait_for("message_error, no dbus error callback.", 3000)) << log.dump();
  for (int i = 0; i < 300 && handlers.get(handlers.errors).empty(); ++i) std::this_thread::sleep_for(milliseconds(10));
  const long cpu = cpu_ms();
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_EQ(handlers.get(handlers.errors), std::vector<int32_t>{-1});
  EXPECT_EQ(log.count("message_error, no dbus error callback."), 1u);
  EXPECT_LT(cpu_ms() - cpu, 300) << "CPU time used while idle after the bus vanished";
  handled.stop();  // still logged as a stop; the dead connection is let go at destruction
}

}  // namespace
