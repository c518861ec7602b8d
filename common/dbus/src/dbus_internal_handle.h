#pragma once
// CDBusInternalHandle: one private bus connection.  It owns a well-known name
// and match rules, and its reader thread sleeps on the connection's socket
// and a wake-up descriptor: replies complete outgoing calls by serial as they
// arrive, incoming calls and signals go to the callback worker, and an armed
// watchdog is fed.

#include <dbus/dbus.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/dbus/src/dbus_message.h"
#include "common/dbus/src/dbus_watch_set.h"
#include "common/platform/src/functor/Functor.h"
#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/thread/Thread.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

class CDBusInternalCallback;

// (status, reply, context): status 0 when a reply or error reply arrived, 1
// when the connection was closed first (the reply is then empty).
using CDBusAsyncDelegate = Platform::CFunctor<uint32_t, CDBusMethodReturn&, uint64_t>;

class CDBusInternalHandle : public Platform::CThread {
 public:
  CDBusInternalHandle(CDBusInternalCallback* callback, const std::string& address, const std::string& name,
                      const std::vector<std::string>& matchRules);
  ~CDBusInternalHandle() override;

  // 0 connected; -1 already connected; -2 open failed; -3 register failed;
  // -4 name not owned; -5 a match rule failed; -6 reader not started.
  int32_t connect_to_bus();
  void disconnect();
  // 0 reply; -1 not connected; -2 send failed; -3 time-out; -4 closed while
  // waiting; -5 the answer is an error.  timeoutMs 0 waits without limit.
  int32_t block_call(CDBusMethodCall& call, CDBusMethodReturn& reply, uint32_t timeoutMs);
  // 0 sent; -1 not connected; -2 send failed.  The delegate runs on the reader.
  int32_t unblock_call(CDBusMethodCall& call, uint64_t context, const CDBusAsyncDelegate& delegate);
  bool send_dbus_reply(CDBusMethodReturn& reply);
  // 0 sent; -1 not connected; -2 send failed.
  int32_t send_signal(CDBusSignal& signal);
  bool set_watchdog(const char* path, const char* text, uint32_t intervalSeconds);

  // Logs and frees a set error; -1 when one was set, else 0.  Never aborts.
  static int check_and_abort(DBusError* error);

 protected:
  void threadProc() override;

 private:
  struct PendingCall;
  struct AsyncCall;

  // Each takes over the caller's reference on `message`.
  void handle_return_method(DBusMessage* message);
  void handle_error_method(DBusMessage* message);
  void dispatch(DBusMessage* message);
  // Feeds an armed watchdog when it is due; the milliseconds until the next
  // feed, or -1 when unarmed.
  int feed_watchdog(uint64_t& lastFeed);
  // A reference to the open connection, or null; the caller unrefs it.
  DBusConnection* acquire_connection();
  // Closes and frees a connection that the reader left behind on its own exit.
  void release_stale_connection();
  void close_connection(DBusConnection* connection);

  std::atomic<bool> m_connected{false};
  CDBusInternalCallback* m_callback;
  std::string m_address;
  std::string m_name;
  std::vector<std::string> m_matchRules;
  DBusConnection* m_connection = nullptr;
  Platform::CMutex m_lock;
  std::map<uint32_t, PendingCall*> m_blockingCalls;
  std::map<uint32_t, AsyncCall*> m_asyncCalls;
  std::string m_watchdogPath;
  std::string m_watchdogText;
  uint32_t m_watchdogInterval = 0;
  CDBusWatchSet m_watchSet;
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
