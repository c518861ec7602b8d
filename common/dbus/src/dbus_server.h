#pragma once
// CDBusServer: the abstract bus endpoint.  It owns the callback worker and the
// connection handle, forwards the connection operations to the handle, and
// receives incoming traffic through its three pure operations, all of which
// run on the callback worker's thread.

#include <cstdint>
#include <string>
#include <vector>

#include "common/dbus/src/dbus_internal_handle.h"
#include "common/dbus/src/dbus_message.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

class CDBusInternalCallback;

class CDBusServer {
 public:
  // No I/O: nothing connects until connect().
  CDBusServer(const std::string& address, const std::string& name, const std::vector<std::string>& matchRules);
  virtual ~CDBusServer();
  CDBusServer(const CDBusServer&) = delete;
  CDBusServer& operator=(const CDBusServer&) = delete;

  // Fill `reply`; clearing `sendReply` suppresses it.
  virtual void message_method(CDBusMethodCall& call, CDBusMethodReturn& reply, bool& sendReply) = 0;
  virtual void message_signal(CDBusSignal& signal) = 0;
  // -1: the bus connection is gone.
  virtual void message_error(int32_t status) = 0;

  // 0 means success.  1 only when the worker runs and the connection failed;
  // a worker that cannot start also gives 0, without any connection attempt.
  int connect();
  // The connection first, then the worker, so a last status still arrives.
  void disconnect();

  int32_t block_call(CDBusMethodCall& call, CDBusMethodReturn& reply, uint32_t timeoutMs);
  int32_t unblock_call(CDBusMethodCall& call, uint64_t context, const CDBusAsyncDelegate& delegate);
  bool send_dbus_reply(CDBusMethodReturn& reply);
  int32_t send_signal(CDBusSignal& signal);
  bool set_watchdog(const char* path, const char* text, uint32_t intervalSeconds);

  static bool is_valid_bus_name(const std::string& name);

 private:
  CDBusInternalCallback* m_callback;
  CDBusInternalHandle* m_handle;
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
