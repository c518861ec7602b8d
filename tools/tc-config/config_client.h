#pragma once
// CConfigClient: one command of a person at a shell against the configuration
// manager, through the same agent the service uses.  Results go to standard
// output, clear errors to standard error; each operation returns the
// program's exit status (0 done, 1 failed).

#include <cstdint>
#include <string>

#include "component/config_agent.h"
#include "component/dbus_channel.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

class CConfigClient {
 public:
  CConfigClient(const std::string& address, uint32_t timeoutMs);
  ~CConfigClient();
  CConfigClient(const CConfigClient&) = delete;
  CConfigClient& operator=(const CConfigClient&) = delete;

  // Joins the bus under a name of its own; false (reported) when unreachable.
  bool connect();

  int get(const std::string& key);
  int set(const std::string& key, const std::string& value);
  int list();
  int flush();
  int reset();

  // A bus name no other process uses: the agent sends it as its identity.
  static std::string unique_name();

 private:
  // Exit status for an agent result, with the error explained.
  int report(const char* operation, int32_t code) const;

  std::string m_address;
  uint32_t m_timeoutMs;
  std::string m_name;
  Component::CDBusChannel m_channel;
  Component::CConfigAgent m_agent;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
