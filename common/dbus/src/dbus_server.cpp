#include "common/dbus/src/dbus_server.h"

#include "common/dbus/src/dbus_internal_callback.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

CDBusServer::CDBusServer(const std::string& address, const std::string& name,
                         const std::vector<std::string>& matchRules)
    : m_callback(new CDBusInternalCallback(this)),
      m_handle(new CDBusInternalHandle(m_callback, address, name, matchRules)) {}

CDBusServer::~CDBusServer() {
  delete m_handle;
  delete m_callback;
}

int CDBusServer::connect() {
  if (!m_callback->start()) return 0;
  return m_handle->connect_to_bus() != 0 ? 1 : 0;
}

void CDBusServer::disconnect() {
  m_handle->disconnect();
  m_callback->stop();
}

int32_t CDBusServer::block_call(CDBusMethodCall& call, CDBusMethodReturn& reply, uint32_t timeoutMs) {
  return m_handle->block_call(call, reply, timeoutMs);
}

int32_t CDBusServer::unblock_call(CDBusMethodCall& call, uint64_t context, const CDBusAsyncDelegate& delegate) {
  return m_handle->unblock_call(call, context, delegate);
}

bool CDBusServer::send_dbus_reply(CDBusMethodReturn& reply) { return m_handle->send_dbus_reply(reply); }

int32_t CDBusServer::send_signal(CDBusSignal& signal) { return m_handle->send_signal(signal); }

bool CDBusServer::set_watchdog(const char* path, const char* text, uint32_t intervalSeconds) {
  return m_handle->set_watchdog(path, text, intervalSeconds);
}

bool CDBusServer::is_valid_bus_name(const std::string& name) {
  DBusError error;
  dbus_error_init(&error);
  const bool valid = dbus_validate_bus_name(name.c_str(), &error);
  return CDBusInternalHandle::check_and_abort(&error) == 0 && valid;
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
