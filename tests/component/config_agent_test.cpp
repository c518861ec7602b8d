// CConfigAgent against the development manager (tc-config serve, a child
// process) and, for the codes that one never gives, against a scripted
// manager built on the same channel.

#include "component/config_agent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"

using namespace std::chrono;
using namespace Zentrova::Iot::Component;
using namespace Zentrova::Iot::DBus;
using tc_test::ChildProcess;
using tc_test::LogCaptureScope;

namespace {

const std::string kTool = TC_BINARY_DIR "/tools/tc-config/tc-config";
const char* const kSelf = "iot.gateway.transparentchannel";
const char* const kManager = "iot.dmp.configmanager";

void ignore_error(int32_t) {}

// Configuration callbacks, bound as the service binds them.
struct Subscriber {
  void on_change(const std::string& key, const std::string& value, int& result) {
    std::string seen;
    if (agent && reread) agent->get_config(key, seen, 3000);  // calling back into the manager
    std::lock_guard<std::mutex> lock(mutex);
    changes.push_back(key + "=" + value);
    reread_values.push_back(seen);
    result = answer;
  }
  void other(const std::string& key, const std::string& value, int& result) {
    std::lock_guard<std::mutex> lock(mutex);
    changes.push_back("other:" + key + "=" + value);
    result = 8;
  }
  std::vector<std::string> get() {
    std::lock_guard<std::mutex> lock(mutex);
    return changes;
  }
  bool wait(size_t n) {
    for (int i = 0; i < 500 && get().size() < n; ++i) std::this_thread::sleep_for(milliseconds(10));
    return get().size() >= n;
  }
  CConfigAgent* agent = nullptr;
  std::atomic<bool> reread{false};
  int answer = 7;
  std::mutex mutex;
  std::vector<std::string> changes;
  std::vector<std::string> reread_values;
};

class Agent : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    channel = std::make_unique<CDBusChannel>(bus.address(), kSelf, "/iot/gateway/transparentchannel",
                                             std::vector<std::string>{});
    channel->set_error_callback(CDBusErrorCallback(&ignore_error));
    channel->register_signal("NameAcquired", CDBusSignalHandler());
    agent = std::make_unique<CConfigAgent>(channel.get(), kSelf);
    ASSERT_EQ(channel->start(), 1);
  }
  void serve(const std::string& store = "") {
    std::vector<std::string> argv{kTool, "serve", "--bus", bus.address()};
    if (!store.empty()) argv.insert(argv.end(), {"--store", store});
    manager = std::make_unique<ChildProcess>(argv);
    ASSERT_TRUE(manager->wait_for_line("ready on", 10000)) << manager->output();
  }
  int run_tool(const std::vector<std::string>& args) {
    std::vector<std::string> argv{kTool};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.insert(argv.end(), {"--bus", bus.address()});
    ChildProcess tool(argv);
    int status = 0;
    EXPECT_TRUE(tool.wait_exit(10000, &status)) << tool.output();
    return tc_test::exit_code(status);
  }
  // First, so it outlives every thread that may still log.
  LogCaptureScope log;
  tc_test::DBusDaemon bus;
  std::unique_ptr<CDBusChannel> channel;
  std::unique_ptr<CConfigAgent> agent;
  std::unique_ptr<ChildProcess> manager;
};

TEST_F(Agent, ChangesReachTheSubscribedCallbackAndItsResultGoesBack) {
  serve();
  Subscriber subscriber;
  subscriber.agent = agent.get();
  subscriber.reread = true;
  ASSERT_EQ(agent->subscribe_config("gw_tc_serial_devices", CConfigCallback(&subscriber, &Subscriber::on_change), 1,
                                    3000),
            0);
  ASSERT_EQ(run_tool({"set", "gw_tc_serial_devices", "[1]"}), 0);
  ASSERT_TRUE(subscriber.wait(1));
  EXPECT_EQ(subscriber.get()[0], "gw_tc_serial_devices=[1]");
  EXPECT_EQ(subscriber.reread_values[0], "[1]") << "the callback could call the manager back";
  EXPECT_TRUE(manager->wait_for_line(
      "notify_config, [gw_tc_serial_devices] to [iot.gateway.transparentchannel] result [7].", 3000))
      << manager->output();

  // The same value again changes nothing and notifies nobody.
  ASSERT_EQ(run_tool({"set", "gw_tc_serial_devices", "[1]"}), 0);
  ASSERT_TRUE(manager->wait_for_line("[gw_tc_serial_devices] unchanged, nobody notified.", 3000));
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(subscriber.get().size(), 1u);

  // A reset empties every key that had a value.
  subscriber.reread = false;
  ASSERT_EQ(run_tool({"reset"}), 0);
  ASSERT_TRUE(subscriber.wait(2));
  EXPECT_EQ(subscriber.get()[1], "gw_tc_serial_devices=");

  // Unsubscribed at the manager: no more notifications.
  ASSERT_EQ(agent->unsubscribe_config("gw_tc_serial_devices", 3000), 0);
  ASSERT_EQ(run_tool({"set", "gw_tc_serial_devices", "[2]"}), 0);
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(subscriber.get().size(), 2u);
  EXPECT_EQ(manager->count_lines("result [7]"), 2u) << manager->output();
}

// A manager whose answers the test scripts, member by member.
class ScriptedManager {
 public:
  struct Answer {
    bool code = true;  // append the code at all
    int32_t value = 0;
    bool text = false;  // append a string after the code
    int delay_ms = 0;
  };
  explicit ScriptedManager(const std::string& address)
      : m_channel(address, kManager, "/iot/dmp/configmanager", {}) {
    for (const char* member : {"get_config", "set_config", "set_config_security", "subscribe_config",
                               "unsubscribe_config", "flush_config", "reset_config"}) {
      m_channel.register_method(member, CDBusMethodHandler(this, &ScriptedManager::answer));
    }
    m_channel.set_error_callback(CDBusErrorCallback(&ignore_error));
    m_channel.register_signal("NameAcquired", CDBusSignalHandler());
  }
  bool start() { return m_channel.start() == 1; }
  void script(const std::string& member, Answer answer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answers[member] = answer;
  }
  std::vector<std::string> members() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_members;
  }
  // Sends "notify_config" to the agent as the manager does; returns the reply.
  CDBusMethodReturn notify(const std::vector<std::string>& strings, bool int_value = false) {
    CDBusMethodCall call(kSelf, "/iot/gateway/transparentchannel", kSelf, "notify_config");
    for (const auto& s : strings) call.set_string(s);
    if (int_value) call.set_int32(3);
    CDBusMethodReturn reply;
    EXPECT_EQ(m_channel.block_call(call, reply, 3000), 0);
    return reply;
  }

 private:
  void answer(CDBusMethodCall& call, CDBusMethodReturn& reply) {
    Answer a;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_members.push_back(call.get_member());
      a = m_answers[call.get_member()];
    }
    if (a.delay_ms) std::this_thread::sleep_for(milliseconds(a.delay_ms));
    if (a.code) reply.set_int32(a.value);
    if (a.text) reply.set_string("scripted");
  }
  std::mutex m_mutex;
  std::map<std::string, Answer> m_answers;
  std::vector<std::string> m_members;
  CDBusChannel m_channel;
};

int32_t reply_code(CDBusMethodReturn& reply) {
  int32_t code = -1;
  return reply.get_int32(code) ? code : -1;
}

TEST_F(Agent, GetConfigCodePathsAgainstAScriptedManager) {
  log.clear();
  std::string value = "untouched";
  EXPECT_EQ(agent->get_config("k", value, 1000), CConfigAgent::kCallFailed) << "nobody owns the manager's name";
  EXPECT_EQ(log.count("get config, block_call [-5] fail."), 1u) << log.dump();
  ScriptedManager peer(bus.address());
  ASSERT_TRUE(peer.start());
  log.clear();

  peer.script("get_config", {true, 5, false, 0});
  EXPECT_EQ(agent->get_config("k", value, 3000), 5);
  for (const auto& line : log.lines()) {
    EXPECT_NE(line.function, "get_config") << "a refusal by the manager is not logged: " << line.text;
  }
  peer.script("get_config", {true, 0, false, 0});
  EXPECT_EQ(agent->get_config("k", value, 3000), CConfigAgent::kNoValue);
  EXPECT_EQ(log.count("get config, [k] get string fail."), 1u) << log.dump();
  peer.script("get_config", {false, 0, false, 0});
  EXPECT_EQ(agent->get_config("k", value, 3000), CConfigAgent::kCallFailed);
  EXPECT_EQ(log.count("get config, [k] get int32 fail."), 1u) << log.dump();
  peer.script("get_config", {true, 0, false, 600});
  EXPECT_EQ(agent->get_config("k", value, 200), CConfigAgent::kCallFailed);
  EXPECT_EQ(log.count("get config, block_call [-3] fail."), 1u) << log.dump();
  EXPECT_EQ(value, "untouched");
  peer.script("get_config", {true, 0, true, 0});
  EXPECT_EQ(agent->get_config("k", value, 3000), 0);
  EXPECT_EQ(value, "scripted");
}

TEST_F(Agent, ManagerCodesArePassedThroughWithTheirLines) {
  ScriptedManager peer(bus.address());
  ASSERT_TRUE(peer.start());
  log.clear();
  Subscriber subscriber;
  peer.script("set_config", {true, 9, false, 0});
  peer.script("set_config_security", {false, 0, false, 0});
  peer.script("subscribe_config", {true, 3, false, 0});
  peer.script("unsubscribe_config", {true, 4, false, 0});
  peer.script("flush_config", {true, 6, false, 0});
  peer.script("reset_config", {true, 6, false, 0});
  EXPECT_EQ(agent->set_config("k", "v", 3000, false), 9);
  EXPECT_EQ(agent->set_config("k", "v", 3000, true), CConfigAgent::kCallFailed);
  EXPECT_EQ(agent->subscribe_config("k", CConfigCallback(&subscriber, &Subscriber::on_change), 1, 3000), 3);
  EXPECT_EQ(agent->unsubscribe_config("k", 3000), 4);
  EXPECT_EQ(agent->flush_config(3000), 6);
  EXPECT_EQ(agent->reset_config(3000), 6);
  EXPECT_EQ(log.count("set config, [k] code [9] fail."), 1u);
  EXPECT_EQ(log.count("set config, [k] code [100000] fail."), 1u);
  EXPECT_EQ(log.count("subscribe config, [k] code [3] fail."), 1u);
  EXPECT_EQ(log.count("unsubscribe config, [k] code [4] fail."), 1u);
  EXPECT_EQ(log.count("flush config, code [6] fail."), 2u) << log.dump();
  EXPECT_EQ(peer.members(), (std::vector<std::string>{"set_config", "set_config_security", "subscribe_config",
                                                       "unsubscribe_config", "flush_config", "reset_config"}));
}

TEST_F(Agent, NotificationsFollowTheSubscriptionTable) {
  ScriptedManager peer(bus.address());
  ASSERT_TRUE(peer.start());
  log.clear();
  Subscriber subscriber;
  CDBusMethodReturn reply = peer.notify({"k", "v"});
  EXPECT_EQ(reply_code(reply), 0);
  EXPECT_EQ(log.count("notify_config, [k] no callback."), 1u);

  ASSERT_EQ(agent->subscribe_config("k", CConfigCallback(&subscriber, &Subscriber::on_change), 1, 3000), 0);
  reply = peer.notify({"k", "v1"});
  EXPECT_EQ(reply_code(reply), 7) << "the callback's result";
  // Refused: the earlier callback stays.
  peer.script("subscribe_config", {true, 3, false, 0});
  EXPECT_EQ(agent->subscribe_config("k", CConfigCallback(&subscriber, &Subscriber::other), 1, 3000), 3);
  reply = peer.notify({"k", "v2"});
  EXPECT_EQ(reply_code(reply), 7);
  // Accepted: the second callback replaces the first.
  peer.script("subscribe_config", {true, 0, false, 0});
  ASSERT_EQ(agent->subscribe_config("k", CConfigCallback(&subscriber, &Subscriber::other), 1, 3000), 0);
  reply = peer.notify({"k", "v3"});
  EXPECT_EQ(reply_code(reply), 8);
  EXPECT_EQ(subscriber.get(), (std::vector<std::string>{"k=v1", "k=v2", "other:k=v3"}));

  // A failed unsubscription still forgets the callback.
  peer.script("unsubscribe_config", {true, 4, false, 0});
  EXPECT_EQ(agent->unsubscribe_config("k", 3000), 4);
  log.clear();
  reply = peer.notify({"k", "v4"});
  EXPECT_EQ(reply_code(reply), 0);
  EXPECT_EQ(log.count("notify_config, [k] no callback."), 1u);

  // Malformed notifications are answered with an empty return.
  for (auto args : {std::vector<std::string>{"k"}, std::vector<std::string>{}}) {
    reply = peer.notify(args, args.empty());
    EXPECT_TRUE(reply.is_method_return());
    EXPECT_EQ(reply_code(reply), -1) << "no argument in the reply";
  }
  CDBusMethodReturn typed = peer.notify({"k"}, true);  // an int32 in place of the value
  EXPECT_EQ(reply_code(typed), -1);
  EXPECT_EQ(log.count("notify_config, receive an error config change."), 3u) << log.dump();

  // A destroyed agent withdraws its handler quietly.
  agent.reset();
  log.clear();
  reply = peer.notify({"k", "v5"});
  EXPECT_EQ(reply_code(reply), -1);
  EXPECT_EQ(log.count_prefix("message_request, recvice unknow method"), 0u) << log.dump();
  EXPECT_EQ(subscriber.get().size(), 3u);
}

}  // namespace
