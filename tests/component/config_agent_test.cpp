// CConfigAgent and the CDBusChannel under it, against the development
// manager (tc-config serve) and, for the answers that one never gives, a
// scripted manager: routing by member name, the empty answer to unknown
// methods, the error callback.

#include "component/config_agent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;
using tc_test::eventually;

namespace {

const std::string kTool = TC_BINARY_DIR "/tools/tc-config/tc-config";
const char* const kSelf = "iot.gateway.transparentchannel";

void ignore_error(int32_t) {}

// Configuration callbacks, bound as the service binds them.
struct Subscriber {
  void on_change(const std::string& key, const std::string& value, int& result) {
    std::string seen;
    if (reread) agent->get_config(key, seen, 3000);  // calling back into the manager
    std::lock_guard<std::mutex> lock(mutex);
    changes.push_back(key + "=" + value + (reread ? " read " + seen : ""));
    result = 7;
  }
  void other(const std::string& key, const std::string& value, int& result) {
    std::lock_guard<std::mutex> lock(mutex);
    changes.push_back("other:" + key + "=" + value);
    result = 8;
  }
  // Plain channel handlers, bound the same way.
  void echo(CDBusMethodCall& call, CDBusMethodReturn& reply) {
    std::string text;
    call.get_string(text);
    reply.set_string("echo:" + text);
  }
  void register_more(CDBusMethodCall&, CDBusMethodReturn& reply) {
    channel->register_method("added", CDBusMethodHandler(this, &Subscriber::echo));
    reply.set_string("registered");
  }
  void on_error(int32_t status) {
    std::lock_guard<std::mutex> lock(mutex);
    changes.push_back("bus error " + std::to_string(status));
  }
  std::vector<std::string> get() {
    std::lock_guard<std::mutex> lock(mutex);
    return changes;
  }
  CConfigAgent* agent = nullptr;
  CDBusChannel* channel = nullptr;
  std::atomic<bool> reread{false};
  std::mutex mutex;
  std::vector<std::string> changes;
};

// A channel on the test's bus that is up once made.
std::unique_ptr<CDBusChannel> open_channel(const std::string& address, const std::string& name) {
  std::string path = "/" + name;
  for (char& c : path) c = c == '.' ? '/' : c;
  auto channel = std::make_unique<CDBusChannel>(address, name, path, std::vector<std::string>{});
  channel->set_error_callback(CDBusErrorCallback(&ignore_error));
  channel->register_signal("NameAcquired", CDBusSignalHandler());
  return channel;
}

// A manager whose one answer the test sets; it records the members called.
struct ScriptedManager {
  struct Answer {
    bool code = true;  // append the code at all
    int32_t value = 0;
    bool text = false;  // append a string after the code
    int delay_ms = 0;
  };
  explicit ScriptedManager(const std::string& address) : channel(open_channel(address, "iot.dmp.configmanager")) {
    for (const char* member : {"get_config", "set_config", "set_config_security", "subscribe_config",
                               "unsubscribe_config", "flush_config", "reset_config"}) {
      channel->register_method(member, CDBusMethodHandler(this, &ScriptedManager::answer_call));
    }
    EXPECT_EQ(channel->start(), 1);
  }
  void answer_call(CDBusMethodCall& call, CDBusMethodReturn& reply) {
    std::lock_guard<std::mutex> lock(mutex);
    last_member = call.get_member();
    std::this_thread::sleep_for(std::chrono::milliseconds(answer.delay_ms));
    if (answer.code) reply.set_int32(answer.value);
    if (answer.text) reply.set_string("scripted");
  }
  // A call with one string to the agent's channel; the reply's string,
  // "(empty)" for a return without one, or the call's error.
  std::string call(const std::string& member) {
    CDBusMethodCall request(kSelf, "/iot/gateway/transparentchannel", kSelf, member);
    request.set_string("x");
    CDBusMethodReturn reply;
    const int32_t result = channel->block_call(request, reply, 3000);
    std::string text = "(empty)";
    if (result != 0 || !reply.is_method_return()) return "error " + std::to_string(result);
    reply.get_string(text);
    return text;
  }
  // Sends "notify_config" to the agent as the manager does; the reply's code, or -1.
  int32_t notify(const std::vector<std::string>& strings, bool int_value = false) {
    CDBusMethodCall call(kSelf, "/iot/gateway/transparentchannel", kSelf, "notify_config");
    for (const auto& s : strings) call.set_string(s);
    if (int_value) call.set_int32(3);
    CDBusMethodReturn reply;
    EXPECT_EQ(channel->block_call(call, reply, 3000), 0);
    EXPECT_TRUE(reply.is_method_return());
    int32_t code = -1;
    return reply.get_int32(code) ? code : -1;
  }
  void set(Answer a) {
    std::lock_guard<std::mutex> lock(mutex);
    answer = a;
  }
  std::mutex mutex;
  Answer answer;
  std::string last_member;
  std::unique_ptr<CDBusChannel> channel;
};

class Agent : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    channel = open_channel(bus.address(), kSelf);
    channel->set_error_callback(CDBusErrorCallback(&subscriber, &Subscriber::on_error));
    agent = std::make_unique<CConfigAgent>(channel.get(), kSelf);
    subscriber.agent = agent.get();
    subscriber.channel = channel.get();
    channel->register_method("echo", CDBusMethodHandler(&subscriber, &Subscriber::echo));
    channel->register_method("register", CDBusMethodHandler(&subscriber, &Subscriber::register_more));
    ASSERT_EQ(channel->start(), 1);
  }
  int run_tool(std::vector<std::string> args) {
    args.insert(args.begin(), kTool);
    args.insert(args.end(), {"--bus", bus.address()});
    tc_test::ChildProcess tool(args);
    int status = 0;
    EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
    return tc_test::exit_code(status);
  }
  CConfigCallback on_change() { return CConfigCallback(&subscriber, &Subscriber::on_change); }
  // First, so it outlives every thread that may still log.
  tc_test::LogCaptureScope log;
  tc_test::DBusDaemon bus;
  Subscriber subscriber;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CConfigAgent> agent;
};

TEST_F(Agent, ChangesFromTheManagerReachTheCallbackAndItsResultGoesBack) {
  tc_test::ChildProcess manager({kTool, "serve", "--bus", bus.address()});
  ASSERT_TRUE(manager.wait_for_line("ready on", 10000)) << manager.output();
  subscriber.reread = true;
  ASSERT_EQ(agent->subscribe_config("gw_tc_serial_devices", on_change(), 1, 3000), 0);
  ASSERT_EQ(run_tool({"set", "gw_tc_serial_devices", "[1]"}), 0);
  ASSERT_TRUE(eventually([&] { return subscriber.get().size() == 1; }));
  EXPECT_EQ(subscriber.get()[0], "gw_tc_serial_devices=[1] read [1]") << "the callback could call the manager back";
  EXPECT_TRUE(manager.wait_for_line(
      "notify_config, [gw_tc_serial_devices] to [iot.gateway.transparentchannel] result [7].", 3000))
      << manager.output();

  subscriber.reread = false;
  ASSERT_EQ(run_tool({"reset"}), 0);  // empties every key that had a value
  ASSERT_TRUE(eventually([&] { return subscriber.get().size() == 2; }));
  EXPECT_EQ(subscriber.get()[1], "gw_tc_serial_devices=");
  EXPECT_TRUE(manager.wait_for_line("result [7]", 3000, 2)) << manager.output();
}

// Each call against a scripted answer: the member it calls, the code it
// returns and the one line it logs (refusals of get_config are not logged).
TEST_F(Agent, ManagerAnswersGiveTheseCodesAndLines) {
  std::string value = "untouched";
  EXPECT_EQ(agent->get_config("k", value, 1000), CConfigAgent::kCallFailed) << "nobody owns the manager's name";
  EXPECT_EQ(log.count("get config, block_call [-5] fail."), 1u) << log.dump();
  EXPECT_EQ(log.count("handle_error_method, name:org.freedesktop.DBus.Error.ServiceUnknown."), 1u) << log.dump();
  ScriptedManager manager(bus.address());
  using A = ScriptedManager::Answer;
  const int32_t failed = CConfigAgent::kCallFailed;
  struct Row {
    A answer;
    std::function<int32_t()> call;
    const char* member;
    int32_t result;
    const char* line;
  };
  auto get = [&](uint32_t timeout) { return [&, timeout] { return agent->get_config("k", value, timeout); }; };
  const Row rows[] = {
      {A{true, 5}, get(3000), "get_config", 5, ""},
      {A{true, 0}, get(3000), "get_config", CConfigAgent::kNoValue, "get config, [k] get string fail."},
      {A{false}, get(3000), "get_config", failed, "get config, [k] get int32 fail."},
      {A{true, 0, true, 600}, get(200), "get_config", failed, "get config, block_call [-3] fail."},
      {A{true, 9}, [&] { return agent->set_config("k", "v", 3000, false); }, "set_config", 9,
       "set config, [k] code [9] fail."},
      {A{false}, [&] { return agent->set_config("k", "v", 3000, true); }, "set_config_security", failed,
       "set config, [k] code [100000] fail."},
      {A{true, 3}, [&] { return agent->subscribe_config("k", on_change(), 1, 3000); }, "subscribe_config", 3,
       "subscribe config, [k] code [3] fail."},
      {A{true, 4}, [&] { return agent->unsubscribe_config("k", 3000); }, "unsubscribe_config", 4,
       "unsubscribe config, [k] code [4] fail."},
      {A{true, 6}, [&] { return agent->flush_config(3000); }, "flush_config", 6, "flush config, code [6] fail."},
      {A{true, 6}, [&] { return agent->reset_config(3000); }, "reset_config", 6, "flush config, code [6] fail."},
      {A{true, 0, true}, get(3000), "get_config", 0, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.member) + " answered " + std::to_string(row.answer.value));
    manager.set(row.answer);
    log.clear();
    EXPECT_EQ(row.call(), row.result);
    std::this_thread::sleep_for(std::chrono::milliseconds(row.answer.delay_ms));
    EXPECT_EQ(log.count_prefix("get config"), std::string(row.line).rfind("get config", 0) == 0 ? 1u : 0u);
    EXPECT_EQ(log.count(row.line), *row.line ? 1u : 0u) << log.dump();
    std::lock_guard<std::mutex> lock(manager.mutex);
    EXPECT_EQ(manager.last_member, row.member);
  }
  EXPECT_EQ(value, "scripted") << "only a full answer sets the value";
}

TEST_F(Agent, NotificationsFollowTheSubscriptionTable) {
  ScriptedManager manager(bus.address());
  EXPECT_EQ(manager.notify({"k", "v"}), 0);
  EXPECT_EQ(log.count("notify_config, [k] no callback."), 1u);
  ASSERT_EQ(agent->subscribe_config("k", on_change(), 1, 3000), 0);
  EXPECT_EQ(manager.notify({"k", "v1"}), 7) << "the callback's result";
  // Refused: the earlier callback stays.  Accepted: the new one replaces it.
  manager.set({true, 3});
  EXPECT_EQ(agent->subscribe_config("k", CConfigCallback(&subscriber, &Subscriber::other), 1, 3000), 3);
  EXPECT_EQ(manager.notify({"k", "v2"}), 7);
  manager.set({true, 0});
  ASSERT_EQ(agent->subscribe_config("k", CConfigCallback(&subscriber, &Subscriber::other), 1, 3000), 0);
  EXPECT_EQ(manager.notify({"k", "v3"}), 8);
  EXPECT_EQ(subscriber.get(), (std::vector<std::string>{"k=v1", "k=v2", "other:k=v3"}));

  // A failed unsubscription still forgets the callback.
  manager.set({true, 4});
  EXPECT_EQ(agent->unsubscribe_config("k", 3000), 4);
  EXPECT_EQ(manager.notify({"k", "v4"}), 0);
  EXPECT_EQ(log.count("notify_config, [k] no callback."), 2u);

  // Malformed notifications get an empty return.
  EXPECT_EQ(manager.notify({"k"}), -1);
  EXPECT_EQ(manager.notify({}, true), -1);
  EXPECT_EQ(manager.notify({"k"}, true), -1);
  EXPECT_EQ(log.count("notify_config, receive an error config change."), 3u) << log.dump();

  // A destroyed agent withdraws its handler quietly.
  agent.reset();
  log.clear();
  EXPECT_EQ(manager.notify({"k", "v5"}), -1);
  EXPECT_EQ(log.count_prefix("message_request, recvice unknow method"), 0u) << log.dump();
  EXPECT_EQ(subscriber.get().size(), 3u);
}

TEST_F(Agent, TheChannelRoutesByMemberAndAnswersUnknownOnesEmpty) {
  ScriptedManager manager(bus.address());
  EXPECT_EQ(manager.call("echo"), "echo:x");
  EXPECT_EQ(manager.call("nope"), "(empty)") << "answered, not an error";
  EXPECT_EQ(log.count("message_request, recvice unknow method, member:nope."), 1u) << log.dump();
  // A handler that registers another one while it runs does not deadlock.
  EXPECT_EQ(manager.call("register"), "registered");
  EXPECT_EQ(manager.call("added"), "echo:x");
  // The second registration of a member wins.
  channel->register_method("echo", CDBusMethodHandler(&subscriber, &Subscriber::register_more));
  EXPECT_EQ(manager.call("echo"), "registered");
}

TEST_F(Agent, LostBusFiresTheErrorCallbackOrLogsItsAbsenceOnce) {
  CDBusChannel quiet(bus.address(), "tc.test.quiet", "/tc/test/quiet", {});  // without an error callback
  ASSERT_EQ(quiet.start(), 1);
  log.clear();
  bus.kill();
  ASSERT_TRUE(log.wait_for("message_error, no dbus error callback.", 3000)) << log.dump();
  ASSERT_TRUE(eventually([&] { return !subscriber.get().empty(); }));
  // Whether the reader spins afterwards is the server's test.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(subscriber.get(), std::vector<std::string>{"bus error -1"});
  EXPECT_EQ(log.count("message_error, no dbus error callback."), 1u);
}

}  // namespace
