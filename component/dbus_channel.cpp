#include "component/dbus_channel.h"

#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace Component {

using Platform::CMutexGuard;

namespace {
// The start and stop lines always name the gateway's bus, whatever address
// the channel was given.
const char* const kBusAddress = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
}  // namespace

CDBusChannel::CDBusChannel(const std::string& address, const std::string& name, const std::string& path,
                           const std::vector<std::string>& matchRules)
    : CDBusServer(address, name, matchRules), m_name(name), m_path(path) {}

CDBusChannel::~CDBusChannel() {
  // The worker must not reach the handlers below once this part is gone.
  CDBusServer::disconnect();
}

int CDBusChannel::start() {
  if (m_connected.load()) return 1;
  if (connect() == 0) {
    m_connected.store(true);
    TC_LOG(1, "[%s] connect to dbus server [%s] successs.", m_name.c_str(), kBusAddress);
    return 1;
  }
  TC_LOG(3, "dbus agent start, [%s] connect to dbus server [%s] fail.", m_name.c_str(), kBusAddress);
  return 0;
}

void CDBusChannel::stop() {
  if (!m_connected.exchange(false)) return;
  disconnect();
  TC_LOG(1, "[%s] disconnect from dbus server [%s] successs.", m_name.c_str(), kBusAddress);
}

void CDBusChannel::set_error_callback(const CDBusErrorCallback& callback) {
  CMutexGuard guard(&m_lock);
  m_errorCallback = callback;
}

void CDBusChannel::register_method(const std::string& member, const CDBusMethodHandler& handler) {
  CMutexGuard guard(&m_lock);
  m_methods[member] = handler;
}

void CDBusChannel::register_signal(const std::string& member, const CDBusSignalHandler& handler) {
  CMutexGuard guard(&m_lock);
  m_signals[member] = handler;
}

// Handlers are copied under the lock and run without it, so they may register
// handlers themselves, and a replaced handler finishes on its old copy.
void CDBusChannel::message_method(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply, bool& sendReply) {
  (void)sendReply;  // every call is answered, an unknown one with an empty return
  const std::string member = call.get_member();
  CDBusMethodHandler handler;
  bool found = false;
  {
    CMutexGuard guard(&m_lock);
    auto it = m_methods.find(member);
    if (it != m_methods.end()) {
      handler = it->second;
      found = true;
    }
  }
  if (!found) {
    TC_LOG(2, "message_request, recvice unknow method, member:%s.", member.c_str());
    return;
  }
  handler(call, reply);
}

void CDBusChannel::message_signal(DBus::CDBusSignal& signal) {
  const std::string member = signal.get_member();
  CDBusSignalHandler handler;
  bool found = false;
  {
    CMutexGuard guard(&m_lock);
    auto it = m_signals.find(member);
    if (it != m_signals.end()) {
      handler = it->second;
      found = true;
    }
  }
  if (!found) {
    TC_LOG(2, "message_request, recvice unknow signal, interface:%s, member:%s.", signal.get_interface().c_str(),
           member.c_str());
    return;
  }
  handler(signal);
}

void CDBusChannel::message_error(int32_t status) {
  CDBusErrorCallback callback;
  {
    CMutexGuard guard(&m_lock);
    if (m_errorCallback.empty()) {
      TC_LOG(2, "message_error, no dbus error callback.");
      return;
    }
    callback = m_errorCallback;
  }
  callback(status);
}

}  // namespace Component
}  // namespace Iot
}  // namespace Zentrova
