// The callback worker behind CDBusServer: order, reply suppression, stopping,
// and what is left in its queue at shutdown.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "tests/common/dbus/test_server.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"

using namespace std::chrono;
using namespace Zentrova::Iot::DBus;
using tc_test::TestServer;

namespace {

const char* const kPeer = "tc.test.peer";

CDBusMethodCall call_peer(const std::string& member, const std::string& tag) {
  CDBusMethodCall call(kPeer, "/tc/test/peer", kPeer, member);
  call.set_string(tag);
  return call;
}

struct ReplyOrder {
  void on_reply(uint32_t status, CDBusMethodReturn& reply, uint64_t) {
    std::string tag;
    reply.get_string(tag);
    std::lock_guard<std::mutex> lock(mutex);
    tags.push_back(status == 0 ? tag : "status " + std::to_string(status));
  }
  std::vector<std::string> get() {
    std::lock_guard<std::mutex> lock(mutex);
    return tags;
  }
  std::mutex mutex;
  std::vector<std::string> tags;
};

using Server = tc_test::PeerAndClient;

TEST_F(Server, CallsAreHandledOneAtATimeInArrivalOrder) {
  std::mutex mutex;
  std::vector<std::string> handled;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  peer->on_method([&](CDBusMethodCall& call, CDBusMethodReturn& reply, bool&) {
    if (inside.fetch_add(1) != 0) overlapped.store(true);
    std::string tag;
    call.get_string(tag);
    if (tag == "first") std::this_thread::sleep_for(milliseconds(300));  // the second waits in the queue
    {
      std::lock_guard<std::mutex> lock(mutex);
      handled.push_back(tag);
    }
    reply.set_string(tag);
    inside.fetch_sub(1);
  });
  ReplyOrder replies;
  for (const char* tag : {"first", "second"}) {
    CDBusMethodCall call = call_peer("work", tag);
    ASSERT_EQ(client->unblock_call(call, 0, CDBusAsyncDelegate(&replies, &ReplyOrder::on_reply)), 0);
  }
  for (int i = 0; i < 500 && replies.get().size() < 2; ++i) std::this_thread::sleep_for(milliseconds(10));
  EXPECT_EQ(replies.get(), (std::vector<std::string>{"first", "second"}));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(handled, (std::vector<std::string>{"first", "second"}));
  EXPECT_FALSE(overlapped.load());
}

TEST_F(Server, ASilencedHandlerSendsNoReplyAThrowingOneAnEmptyOne) {
  log.clear();
  peer->on_method([](CDBusMethodCall& call, CDBusMethodReturn& reply, bool& sendReply) {
    std::string tag;
    call.get_string(tag);
    if (tag == "throw") throw std::runtime_error("boom");
    reply.set_string(tag);
    sendReply = tag != "silent";
  });
  const std::pair<const char*, int32_t> cases[] = {{"silent", -3}, {"throw", 0}};
  for (const auto& [tag, result] : cases) {
    CDBusMethodCall call = call_peer("work", tag);
    CDBusMethodReturn reply;
    EXPECT_EQ(client->block_call(call, reply, result ? 400 : 3000), result) << tag;
    std::string text;
    EXPECT_FALSE(reply.get_string(text)) << tag;
  }
  CDBusMethodReturn reply;
  CDBusMethodCall good = call_peer("work", "fine");
  EXPECT_EQ(client->block_call(good, reply, 3000), 0);
  EXPECT_EQ(log.count("threadProc, handler ended by an exception: boom."), 1u) << log.dump();
}

// Calls still queued when the worker stops are released with it (the leak
// check of the sanitizer build is what sees a lost message reference).
TEST_F(Server, CallsQueuedAtShutdownAreReleased) {
  std::atomic<int> handled{0};
  peer->on_method([&](CDBusMethodCall&, CDBusMethodReturn&, bool&) {
    handled.fetch_add(1);
    std::this_thread::sleep_for(milliseconds(300));
  });
  for (int i = 0; i < 4; ++i) {
    CDBusMethodCall call = call_peer("slow", std::to_string(i));
    ASSERT_EQ(client->unblock_call(call, 0, CDBusAsyncDelegate()), 0);
  }
  for (int i = 0; i < 300 && handled.load() == 0; ++i) std::this_thread::sleep_for(milliseconds(10));
  ASSERT_EQ(handled.load(), 1);
  std::this_thread::sleep_for(milliseconds(150));  // the other three are queued by now
  peer->disconnect();
  peer.reset();
  EXPECT_LT(handled.load(), 4);
}

}  // namespace
