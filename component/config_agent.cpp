#include "component/config_agent.h"

#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace Component {

using DBus::CDBusMethodCall;
using DBus::CDBusMethodReturn;
using Platform::CMutexGuard;

namespace {
const char* const kManagerName = "iot.dmp.configmanager";
const char* const kManagerPath = "/iot/dmp/configmanager";
const char* const kManagerInterface = "iot.dmp.configmanager";
}  // namespace

CConfigAgent::CConfigAgent(CDBusChannel* channel, const std::string& name) : m_channel(channel), m_name(name) {
  m_channel->register_method("notify_config", CDBusMethodHandler(this, &CConfigAgent::notify_config), "ss", "i");
}

CConfigAgent::~CConfigAgent() { m_channel->register_method("notify_config", CDBusMethodHandler()); }

CDBusMethodCall CConfigAgent::request(const char* member) const {
  return CDBusMethodCall(kManagerName, kManagerPath, kManagerInterface, member);
}

int32_t CConfigAgent::get_config(const std::string& key, std::string& value, uint32_t timeoutMs) {
  CDBusMethodCall call = request("get_config");
  call.set_string(key);
  CDBusMethodReturn reply;
  const int32_t result = m_channel->block_call(call, reply, timeoutMs);
  if (result != 0) {
    TC_LOG(2, "get config, block_call [%d] fail.", result);
    return kCallFailed;
  }
  int32_t code = kCallFailed;
  if (!reply.get_int32(code)) {
    TC_LOG(2, "get config, [%s] get int32 fail.", key.c_str());
    return kCallFailed;
  }
  if (code != 0) return code;
  std::string text;
  if (!reply.get_string(text)) {
    TC_LOG(2, "get config, [%s] get string fail.", key.c_str());
    return kNoValue;
  }
  value = text;
  return 0;
}

int32_t CConfigAgent::code_call(const char* func, CDBusMethodCall& call, uint32_t timeoutMs,
                                const std::string& call_who, const std::string& code_who) {
  CDBusMethodReturn reply;
  const int32_t result = m_channel->block_call(call, reply, timeoutMs);
  if (result != 0) {
    log_print(2, nullptr, nullptr, __FILE__, func, __LINE__, "%s block_call [%d] fail.", call_who.c_str(), result);
    return kCallFailed;
  }
  int32_t code = kCallFailed;
  if (!reply.get_int32(code) || code != 0) {
    log_print(2, nullptr, nullptr, __FILE__, func, __LINE__, "%s code [%d] fail.", code_who.c_str(), code);
    return code;
  }
  return 0;
}

int32_t CConfigAgent::set_config(const std::string& key, const std::string& value, uint32_t timeoutMs,
                                 bool security) {
  CDBusMethodCall call = request(security ? "set_config_security" : "set_config");
  call.set_string(key);
  call.set_string(value);
  const std::string who = "set config, [" + key + "]";
  return code_call(__func__, call, timeoutMs, who, who);
}

int32_t CConfigAgent::subscribe_config(const std::string& key, const CConfigCallback& callback, int32_t mode,
                                       uint32_t timeoutMs) {
  CDBusMethodCall call = request("subscribe_config");
  call.set_string(m_name);
  call.set_string(key);
  call.set_int32(mode);
  const int32_t code = code_call(__func__, call, timeoutMs, "subscribe config,", "subscribe config, [" + key + "]");
  if (code != 0) return code;
  CMutexGuard guard(&m_lock);
  m_callbacks[key] = callback;
  return 0;
}

int32_t CConfigAgent::unsubscribe_config(const std::string& key, uint32_t timeoutMs) {
  {
    CMutexGuard guard(&m_lock);
    m_callbacks.erase(key);
  }
  CDBusMethodCall call = request("unsubscribe_config");
  call.set_string(m_name);
  call.set_string(key);
  return code_call(__func__, call, timeoutMs, "unsubscribe config,", "unsubscribe config, [" + key + "]");
}

int32_t CConfigAgent::flush_config(uint32_t timeoutMs) {
  CDBusMethodCall call = request("flush_config");
  return code_call(__func__, call, timeoutMs, "flush config,", "flush config,");
}

// Its lines begin "flush config" too: that is the manager's wording for both.
int32_t CConfigAgent::reset_config(uint32_t timeoutMs) {
  CDBusMethodCall call = request("reset_config");
  return code_call(__func__, call, timeoutMs, "flush config,", "flush config,");
}

void CConfigAgent::notify_config(CDBusMethodCall& call, CDBusMethodReturn& reply) {
  std::string key;
  std::string value;
  if (!call.get_string(key) || !call.get_string(value)) {
    TC_LOG(2, "notify_config, receive an error config change.");
    return;
  }
  CConfigCallback callback;
  {
    CMutexGuard guard(&m_lock);
    auto it = m_callbacks.find(key);
    if (it == m_callbacks.end()) {
      TC_LOG(2, "notify_config, [%s] no callback.", key.c_str());
      reply.set_int32(0);
      return;
    }
    callback = it->second;
  }
  // Without the lock: the callback may read or subscribe itself.
  int result = 0;
  callback(key, value, result);
  reply.set_int32(result);
}

}  // namespace Component
}  // namespace Iot
}  // namespace Zentrova
