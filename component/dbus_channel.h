#pragma once
// CDBusChannel: the service's one endpoint on the message bus.  Incoming
// method calls and signals are routed by member name to registered handlers;
// a lost bus connection is reported to one error callback.

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/dbus/src/dbus_message.h"
#include "common/dbus/src/dbus_server.h"
#include "common/platform/src/functor/Functor.h"
#include "common/platform/src/lock/Mutex.h"

namespace Zentrova {
namespace Iot {
namespace Component {

using CDBusMethodHandler = Platform::CFunctor<DBus::CDBusMethodCall&, DBus::CDBusMethodReturn&>;
using CDBusSignalHandler = Platform::CFunctor<DBus::CDBusSignal&>;
using CDBusErrorCallback = Platform::CFunctor<int32_t>;

class CDBusChannel : public DBus::CDBusServer {
 public:
  // No I/O here.
  CDBusChannel(const std::string& address, const std::string& name, const std::string& path,
               const std::vector<std::string>& matchRules);
  ~CDBusChannel() override;

  // 1 connected (also when already so), 0 the attempt failed.
  int start();
  // Harmless when not connected.
  void stop();

  void set_error_callback(const CDBusErrorCallback& callback);
  // Replaces any earlier handler; an empty one withdraws it quietly.  The
  // argument and result signatures ("ss", "i") are what Introspect shows.
  void register_method(const std::string& member, const CDBusMethodHandler& handler, const std::string& in = "",
                       const std::string& out = "");
  void register_signal(const std::string& member, const CDBusSignalHandler& handler);

  void message_method(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply, bool& sendReply) override;
  void message_signal(DBus::CDBusSignal& signal) override;
  void message_error(int32_t status) override;

 private:
  std::atomic<bool> m_connected{false};
  std::string m_name;
  std::string m_path;
  Platform::CMutex m_lock;
  CDBusErrorCallback m_errorCallback;
  struct Method {
    CDBusMethodHandler handler;
    std::string in;
    std::string out;
  };
  // The standard interfaces every bus object answers (Introspectable,
  // Peer); false for any other call.
  bool standard_method(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply);
  std::string introspect(const std::string& path);

  std::map<std::string, Method> m_methods;
  std::map<std::string, CDBusSignalHandler> m_signals;
};

}  // namespace Component
}  // namespace Iot
}  // namespace Zentrova
