#include "tools/tc-config/config_server.h"

#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

using Component::CDBusMethodHandler;
using Platform::CMutexGuard;

namespace {
const char* const kName = "iot.dmp.configmanager";
const char* const kPath = "/iot/dmp/configmanager";
}  // namespace

CConfigServer::CConfigServer(const std::string& address, CConfigStore* store)
    : m_store(store), m_channel(address, kName, kPath, {}) {
  m_channel.register_method("get_config", CDBusMethodHandler(this, &CConfigServer::get_config));
  m_channel.register_method("set_config", CDBusMethodHandler(this, &CConfigServer::set_config));
  m_channel.register_method("set_config_security", CDBusMethodHandler(this, &CConfigServer::set_config_security));
  m_channel.register_method("subscribe_config", CDBusMethodHandler(this, &CConfigServer::subscribe_config));
  m_channel.register_method("unsubscribe_config", CDBusMethodHandler(this, &CConfigServer::unsubscribe_config));
  m_channel.register_method("flush_config", CDBusMethodHandler(this, &CConfigServer::flush_config));
  m_channel.register_method("reset_config", CDBusMethodHandler(this, &CConfigServer::reset_config));
  m_channel.register_method("list_config", CDBusMethodHandler(this, &CConfigServer::list_config));
  // The bus's own news about our names needs no warning line.
  m_channel.register_signal("NameAcquired", Component::CDBusSignalHandler());
  m_channel.register_signal("NameLost", Component::CDBusSignalHandler());
}

CConfigServer::~CConfigServer() { stop(); }

bool CConfigServer::start() { return m_channel.start() == 1; }

void CConfigServer::stop() { m_channel.stop(); }

void CConfigServer::set_error_callback(const Component::CDBusErrorCallback& callback) {
  m_channel.set_error_callback(callback);
}

std::string CConfigServer::path_of(const std::string& subscriber) {
  std::string path = "/" + subscriber;
  for (char& c : path) {
    if (c == '.') c = '/';
  }
  return dbus_validate_path(path.c_str(), nullptr) ? path : "";
}

void CConfigServer::get_config(Call& call, Return& reply) {
  std::string key;
  if (!call.get_string(key)) {
    TC_LOG(2, "get_config, malformed request.");
    reply.set_int32(kBadRequest);
    return;
  }
  if (answered_as_told(call, key, reply)) return;
  reply.set_int32(0);
  reply.set_string(m_store->get(key));
}

void CConfigServer::set_config(Call& call, Return& reply) { store_value(call, reply); }

// The development manager keeps no secrets: a secure set is a plain set.
void CConfigServer::set_config_security(Call& call, Return& reply) { store_value(call, reply); }

void CConfigServer::store_value(Call& call, Return& reply) {
  std::string key;
  std::string value;
  if (!call.get_string(key) || !call.get_string(value)) {
    TC_LOG(2, "set_config, malformed request.");
    reply.set_int32(kBadRequest);
    return;
  }
  if (answered_as_told(call, key, reply)) return;
  if (CConfigStore::holds_json(key) && !CConfigStore::is_json(value)) {
    TC_LOG(2, "set_config, [%s] is not valid JSON, stored anyway.", key.c_str());
  }
  reply.set_int32(0);
  if (!m_store->set(key, value)) {
    TC_LOG(1, "set_config, [%s] unchanged, nobody notified.", key.c_str());
    return;
  }
  TC_LOG(1, "set_config, [%s] changed.", key.c_str());
  notify(key, value);
}

bool CConfigServer::answered_as_told(Call& call, const std::string& key, Return& reply) {
  const auto told = m_told.find(key);
  if (told == m_told.end()) return false;
  if (!told->second.empty()) reply.set_int32(static_cast<int32_t>(std::stol(told->second)));
  TC_LOG(1, "%s, [%s] answered [%s] as told.", call.get_member().c_str(), key.c_str(), told->second.c_str());
  return true;
}

void CConfigServer::subscribe_config(Call& call, Return& reply) {
  std::string subscriber;
  std::string key;
  int32_t mode = 0;  // accepted and ignored: every subscription is notified of every change
  if (!call.get_string(subscriber) || !call.get_string(key) || !call.get_int32(mode)) {
    TC_LOG(2, "subscribe_config, malformed request.");
    reply.set_int32(kBadRequest);
    return;
  }
  if (answered_as_told(call, key, reply)) return;
  if (path_of(subscriber).empty()) {
    TC_LOG(2, "subscribe_config, [%s] gives no object path to notify.", subscriber.c_str());
    reply.set_int32(kBadRequest);
    return;
  }
  m_subscriptions.insert({key, subscriber});
  TC_LOG(1, "subscribe_config, [%s] subscribed to [%s].", subscriber.c_str(), key.c_str());
  reply.set_int32(0);
}

void CConfigServer::unsubscribe_config(Call& call, Return& reply) {
  std::string subscriber;
  std::string key;
  if (!call.get_string(subscriber) || !call.get_string(key)) {
    TC_LOG(2, "unsubscribe_config, malformed request.");
    reply.set_int32(kBadRequest);
    return;
  }
  if (answered_as_told(call, key, reply)) return;
  m_subscriptions.erase({key, subscriber});
  TC_LOG(1, "unsubscribe_config, [%s] unsubscribed from [%s].", subscriber.c_str(), key.c_str());
  reply.set_int32(0);
}

void CConfigServer::flush_config(Call& call, Return& reply) {
  (void)call;
  std::string error;
  if (!m_store->save(error)) {
    TC_LOG(3, "flush_config, %s.", error.c_str());
    reply.set_int32(kNotWritten);
    return;
  }
  reply.set_int32(0);
}

// Back to an empty store; the file follows at the next flush.
void CConfigServer::reset_config(Call& call, Return& reply) {
  (void)call;
  for (const std::string& key : m_store->clear()) notify(key, "");
  TC_LOG(1, "reset_config, every key forgotten.");
  reply.set_int32(0);
}

void CConfigServer::list_config(Call& call, Return& reply) {
  (void)call;
  reply.set_int32(0);
  reply.set_string(m_store->to_json());
}

void CConfigServer::notify(const std::string& key, const std::string& value) {
  for (auto it = m_subscriptions.lower_bound({key, ""}); it != m_subscriptions.end() && it->first == key; ++it) {
    const std::string& subscriber = it->second;
    const bool interface = dbus_validate_interface(subscriber.c_str(), nullptr);
    Call call(subscriber, path_of(subscriber), interface ? subscriber : "", "notify_config");
    call.set_string(key);
    call.set_string(value);
    uint64_t context;
    {
      CMutexGuard guard(&m_lock);
      context = ++m_nextContext;
      m_pending[context] = {key, subscriber};
    }
    if (m_channel.unblock_call(call, context, DBus::CDBusAsyncDelegate(this, &CConfigServer::notify_result)) != 0) {
      CMutexGuard guard(&m_lock);
      m_pending.erase(context);
      TC_LOG(2, "notify_config, [%s] to [%s] not sent.", key.c_str(), subscriber.c_str());
    }
  }
}

void CConfigServer::notify_result(uint32_t status, Return& reply, uint64_t context) {
  std::pair<std::string, std::string> target;
  {
    CMutexGuard guard(&m_lock);
    auto it = m_pending.find(context);
    if (it == m_pending.end()) return;
    target = it->second;
    m_pending.erase(it);
  }
  const char* key = target.first.c_str();
  const char* subscriber = target.second.c_str();
  if (status != 0) {
    TC_LOG(2, "notify_config, [%s] to [%s] abandoned, the bus connection closed.", key, subscriber);
    return;
  }
  if (!reply.is_method_return()) {
    const char* error = reply.get_message() ? dbus_message_get_error_name(reply.get_message()) : nullptr;
    TC_LOG(2, "notify_config, [%s] to [%s] not delivered: %s.", key, subscriber, error ? error : "no reply");
    return;
  }
  int32_t result = 0;
  if (!reply.get_int32(result)) {
    TC_LOG(2, "notify_config, [%s] to [%s] answered without a result.", key, subscriber);
    return;
  }
  TC_LOG(1, "notify_config, [%s] to [%s] result [%d].", key, subscriber, result);
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
