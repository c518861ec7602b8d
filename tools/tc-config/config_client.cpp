#include "tools/tc-config/config_client.h"

#include <unistd.h>

#include <cstdio>
#include <random>

#include "common/json/json_text.h"
#include "tools/tc-config/config_server.h"
#include "tools/tc-config/config_store.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

using Component::CConfigAgent;

namespace {
const char* const kManager = "iot.dmp.configmanager";
}  // namespace

std::string CConfigClient::unique_name() {
  std::random_device random;
  char name[64];
  snprintf(name, sizeof name, "iot.tools.tcconfig.p%d_%08x", static_cast<int>(getpid()),
           static_cast<unsigned>(random()));
  return name;
}

CConfigClient::CConfigClient(const std::string& address, uint32_t timeoutMs)
    : m_address(address),
      m_timeoutMs(timeoutMs),
      m_name(unique_name()),
      m_channel(address, m_name, "/iot/tools/tcconfig", {}),
      m_agent(&m_channel, m_name) {
  m_channel.register_signal("NameAcquired", Component::CDBusSignalHandler());
}

CConfigClient::~CConfigClient() { m_channel.stop(); }

bool CConfigClient::connect() {
  if (m_channel.start() == 1) return true;
  fprintf(stderr, "tc-config: cannot connect to the bus at %s\n", m_address.c_str());
  return false;
}

int CConfigClient::report(const char* operation, int32_t code) const {
  if (code == 0) return 0;
  if (code == CConfigAgent::kCallFailed) {
    fprintf(stderr, "tc-config: %s failed: no answer from %s on %s (is 'tc-config serve' running there?)\n",
            operation, kManager, m_address.c_str());
  } else if (code == CConfigServer::kBadRequest) {
    fprintf(stderr, "tc-config: %s refused the request of %s as malformed (code %d)\n", kManager, operation, code);
  } else if (code == CConfigServer::kNotWritten) {
    fprintf(stderr, "tc-config: %s could not write its store file (code %d)\n", kManager, code);
  } else {
    fprintf(stderr, "tc-config: %s refused %s with code %d\n", kManager, operation, code);
  }
  return 1;
}

int CConfigClient::get(const std::string& key) {
  std::string value;
  const int32_t code = m_agent.get_config(key, value, m_timeoutMs);
  // A success without a value reads as an empty value, as the service takes it.
  if (code != 0 && code != CConfigAgent::kNoValue) return report("get_config", code);
  printf("%s\n", value.c_str());
  return 0;
}

int CConfigClient::set(const std::string& key, const std::string& value) {
  if (CConfigStore::holds_json(key) && !CConfigStore::is_json(value)) {
    fprintf(stderr, "tc-config: warning: the value for %s is not valid JSON; it is stored anyway\n", key.c_str());
  }
  return report("set_config", m_agent.set_config(key, value, m_timeoutMs, false));
}

int CConfigClient::list() {
  DBus::CDBusMethodCall call(kManager, "/iot/dmp/configmanager", kManager, "list_config");
  DBus::CDBusMethodReturn reply;
  int32_t code = CConfigAgent::kCallFailed;
  std::string text;
  if (m_channel.block_call(call, reply, m_timeoutMs) == 0 && reply.get_int32(code) && code == 0 &&
      !reply.get_string(text)) {
    code = CConfigAgent::kCallFailed;
  }
  if (code != 0) return report("list_config", code);
  Json::Value store;
  if (Platform::string_to_json(text, store)) Platform::json_to_string(store, text, true);
  printf("%s\n", text.c_str());
  return 0;
}

int CConfigClient::flush() { return report("flush_config", m_agent.flush_config(m_timeoutMs)); }

int CConfigClient::reset() { return report("reset_config", m_agent.reset_config(m_timeoutMs)); }

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
