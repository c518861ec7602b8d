// CConfigAgent and the CDBusChannel under it, against the development
// manager (tc-config serve, told to refuse or answer short for some keys),
// with busctl in the manager's place where the agent is the one called:
// routing by member name, the empty answer to unknown methods.

#include "component/config_agent.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <tuple>

#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;
using tc_test::ChildProcess;
using tc_test::eventually;

namespace {

const std::string kTool = TC_BINARY_DIR "/tools/tc-config/tc-config";
const char* const kSelf = "iot.gateway.transparentchannel";
const char* const kPath = "/iot/gateway/transparentchannel";

class Agent : public testing::Test {
 public:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    channel = std::make_unique<CDBusChannel>(bus.address(), kSelf, kPath, std::vector<std::string>{});
    channel->register_signal("NameAcquired", CDBusSignalHandler());
    agent = std::make_unique<CConfigAgent>(channel.get(), kSelf);
    channel->register_method("echo", CDBusMethodHandler(this, &Agent::echo));
    channel->register_method("register", CDBusMethodHandler(this, &Agent::register_more));
    ASSERT_EQ(channel->start(), 1);
  }
  // Configuration callbacks and channel handlers, bound as the service binds them.
  void on_change(const std::string& key, const std::string& value, int& result) {
    std::string seen;
    agent->get_config(key, seen, 3000);  // calling back into the manager
    record(key + "=" + value + " read " + seen);
    result = 7;
  }
  void other(const std::string& key, const std::string& value, int& result) {
    record("other:" + key + "=" + value);
    result = 8;
  }
  void echo(CDBusMethodCall& call, CDBusMethodReturn& reply) {
    std::string text;
    call.get_string(text);
    reply.set_string("echo:" + text);
  }
  void register_more(CDBusMethodCall&, CDBusMethodReturn& reply) {
    channel->register_method("added", CDBusMethodHandler(this, &Agent::echo));
    reply.set_string("registered");
  }
  void record(const std::string& change) {
    std::lock_guard<std::mutex> lock(mutex);
    changes.push_back(change);
  }
  std::vector<std::string> recorded() {
    std::lock_guard<std::mutex> lock(mutex);
    return changes;
  }
  CConfigCallback bind(void (Agent::*callback)(const std::string&, const std::string&, int&)) {
    return CConfigCallback(this, callback);
  }
  // The manager refuses "refused" with 5, gives "novalue" a bare 0 and
  // "empty" an answer without arguments.
  void start_manager() {
    manager = std::make_unique<ChildProcess>(std::vector<std::string>{kTool, "serve", "--bus", bus.address(), "--answer",
                                                                      "refused=5", "--answer", "novalue=0", "--answer",
                                                                      "empty="});
    ASSERT_TRUE(manager->wait_for_line("ready on", 10000)) << manager->output();
  }
  // A program run to its end: its first output line, or why it failed.
  std::string run(const std::vector<std::string>& argv) {
    ChildProcess tool(argv);
    int status = -1;
    EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
    const std::string out = tool.output();
    return status == 0 ? out.substr(0, out.find('\n')) : "failed: " + out;
  }
  // A call to the agent's channel through busctl (signature, arguments): the
  // reply as busctl prints it ("i 7", "" for an empty one).
  std::string send(const std::string& member, std::vector<std::string> args = {"s", "x"}) {
    args.insert(args.begin(), {"/usr/bin/busctl", "--address=" + bus.address(), "call", kSelf, kPath, kSelf, member});
    return run(args);
  }
  // First, so it outlives every thread that may still log.
  tc_test::LogCaptureScope log;
  tc_test::DBusDaemon bus;
  std::mutex mutex;
  std::vector<std::string> changes;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CConfigAgent> agent;
  std::unique_ptr<ChildProcess> manager;
};

// Only an accepted subscription routes changes, to its latest callback, and
// the callback's result goes back; an unsubscription forgets it even when the
// manager cannot be reached.
TEST_F(Agent, NotificationsFollowTheSubscriptionTable) {
  start_manager();
  EXPECT_EQ(send("notify_config", {"ss", "k", "v"}), "i 0");
  EXPECT_EQ(log.count("notify_config, [k] no callback."), 1u) << log.dump();
  EXPECT_EQ(agent->subscribe_config("refused", bind(&Agent::on_change), 1, 3000), 5);
  EXPECT_EQ(send("notify_config", {"ss", "refused", "v"}), "i 0") << "a refused callback is not kept";

  const std::string key = "gw_tc_serial_devices";
  ASSERT_EQ(agent->subscribe_config(key, bind(&Agent::on_change), 1, 3000), 0);
  ASSERT_EQ(run({kTool, "set", key, "[1]", "--bus", bus.address()}), "");
  // The callback can call the manager back.
  EXPECT_TRUE(eventually([&] { return recorded() == std::vector<std::string>{key + "=[1] read [1]"}; }));
  EXPECT_TRUE(manager->wait_for_line("notify_config, [" + key + "] to [" + kSelf + "] result [7].", 3000))
      << manager->output();
  ASSERT_EQ(agent->subscribe_config(key, bind(&Agent::other), 1, 3000), 0);
  ASSERT_EQ(run({kTool, "reset", "--bus", bus.address()}), "");  // empties every key that had a value
  EXPECT_TRUE(eventually([&] { return recorded().size() == 2 && recorded()[1] == "other:" + key + "="; }));

  // Ended as an operator ends it: its name is released before it exits.
  ASSERT_TRUE(manager->signal(SIGTERM) && manager->wait_exit(10000, nullptr));
  log.clear();
  EXPECT_EQ(agent->unsubscribe_config(key, 3000), CConfigAgent::kCallFailed);
  EXPECT_EQ(log.count("unsubscribe config, block_call [-5] fail."), 1u) << log.dump();
  EXPECT_EQ(log.count("handle_error_method, name:org.freedesktop.DBus.Error.ServiceUnknown."), 1u) << log.dump();
  EXPECT_EQ(send("notify_config", {"ss", key, "v"}), "i 0");

  EXPECT_EQ(send("notify_config", {"s", key}), "") << "malformed";
  EXPECT_EQ(log.count("notify_config, receive an error config change."), 1u) << log.dump();
  agent.reset();  // withdraws its handler quietly
  EXPECT_EQ(send("notify_config", {"ss", key, "v"}), "");
  EXPECT_EQ(log.count_prefix("message_request, recvice unknow method"), 0u) << log.dump();
  EXPECT_EQ(recorded().size(), 2u);
}

// Each call against a told answer: the member the manager saw, the code the
// agent returns and the one line it logs (refusals of get_config are not logged).
TEST_F(Agent, ManagerAnswersGiveTheseCodesAndLines) {
  start_manager();
  ASSERT_EQ(run({kTool, "set", "k", "stored", "--bus", bus.address()}), "");
  std::string value = "untouched";
  auto get = [&](const char* key) { return [&, key] { return agent->get_config(key, value, 3000); }; };
  const int32_t failed = CConfigAgent::kCallFailed;
  // The call, the member that answered as told, the code, the line.
  const std::tuple<std::function<int32_t()>, const char*, int32_t, const char*> rows[] = {
      {get("refused"), "get_config, [refused]", 5, ""},
      {get("novalue"), "get_config, [novalue]", CConfigAgent::kNoValue, "get config, [novalue] get string fail."},
      {get("empty"), "get_config, [empty]", failed, "get config, [empty] get int32 fail."},
      {[&] { return agent->set_config("refused", "v", 3000, false); }, "set_config, [refused]", 5,
       "set config, [refused] code [5] fail."},
      {[&] { return agent->set_config("empty", "v", 3000, true); }, "set_config_security, [empty]", failed,
       "set config, [empty] code [100000] fail."},
      {[&] { return agent->subscribe_config("refused", bind(&Agent::on_change), 1, 3000); },
       "subscribe_config, [refused]", 5, "subscribe config, [refused] code [5] fail."},
      {[&] { return agent->unsubscribe_config("refused", 3000); }, "unsubscribe_config, [refused]", 5,
       "unsubscribe config, [refused] code [5] fail."},
      {[&] { return agent->flush_config(3000); }, nullptr, 0, ""},
      {get("k"), nullptr, 0, ""},
      {[&] { return agent->reset_config(3000); }, nullptr, 0, ""},
  };
  for (const auto& [call, member, result, line] : rows) {
    SCOPED_TRACE(member ? member : line);
    log.clear();
    EXPECT_EQ(call(), result);
    EXPECT_EQ(log.count_prefix("get config"), std::string(line).rfind("get config", 0) == 0 ? 1u : 0u);
    EXPECT_EQ(log.count(line), *line ? 1u : 0u) << log.dump();
    EXPECT_TRUE(!member || manager->wait_for_line("answered_as_told: " + std::string(member) + " answered", 3000));
  }
  EXPECT_EQ(value, "stored") << "only a full answer sets the value";
  EXPECT_TRUE(manager->wait_for_line("reset_config, every key forgotten.", 3000)) << manager->output();
}

TEST_F(Agent, TheChannelRoutesByMemberAndAnswersUnknownOnesEmpty) {
  EXPECT_EQ(send("echo"), "s \"echo:x\"");
  EXPECT_EQ(send("nope"), "") << "answered, not an error";
  EXPECT_EQ(log.count("message_request, recvice unknow method, member:nope."), 1u) << log.dump();
  // A handler that registers another one while it runs does not deadlock.
  EXPECT_EQ(send("register"), "s \"registered\"");
  EXPECT_EQ(send("added"), "s \"echo:x\"");
  // The second registration of a member wins.
  channel->register_method("echo", CDBusMethodHandler(static_cast<Agent*>(this), &Agent::register_more));
  EXPECT_EQ(send("echo"), "s \"registered\"");
}

}  // namespace
