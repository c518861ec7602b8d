#pragma once
// A CDBusServer for tests: method calls go to a replaceable function, signals
// and status changes are recorded.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/dbus/src/dbus_server.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/log_capture.h"

namespace tc_test {

using namespace Zentrova::Iot::DBus;

class TestServer : public CDBusServer {
 public:
  using MethodFn = std::function<void(CDBusMethodCall&, CDBusMethodReturn&, bool&)>;

  TestServer(const std::string& address, const std::string& name, const std::vector<std::string>& rules = {})
      : CDBusServer(address, name, rules) {}
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
  void message_signal(CDBusSignal& signal) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    signals.push_back(signal);
    signal_times.push_back(std::chrono::steady_clock::now());
    m_changed.notify_all();
  }
  void message_error(int32_t status) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    errors.push_back(status);
    m_changed.notify_all();
  }
  // Waits until `pred` holds over the recorded fields (under the lock).
  bool wait(const std::function<bool()>& pred, int timeout_ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), pred);
  }
  template <typename T>
  T read(const std::function<T()>& get) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return get();
  }

  std::vector<CDBusSignal> signals;
  std::vector<std::chrono::steady_clock::time_point> signal_times;
  std::vector<int32_t> errors;

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  MethodFn m_method;
};

// A private bus with two test servers on it, "tc.test.peer" and
// "tc.test.client".
class PeerAndClient : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus.start()) << bus.error();
    peer = std::make_unique<TestServer>(bus.address(), "tc.test.peer");
    ASSERT_EQ(peer->connect(), 0);
    client = std::make_unique<TestServer>(bus.address(), "tc.test.client");
    ASSERT_EQ(client->connect(), 0);
  }
  void TearDown() override {
    client.reset();
    peer.reset();
    EXPECT_EQ(log.count_prefix("stop, DBus_"), 0u) << "a bus thread slept through its stop";
  }
  // First, so it outlives every thread that may still log.
  LogCaptureScope log;
  DBusDaemon bus;
  std::unique_ptr<TestServer> peer;
  std::unique_ptr<TestServer> client;
};

}  // namespace tc_test
