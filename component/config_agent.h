#pragma once
// CConfigAgent: the service's client of the gateway's configuration manager.
// Reads, writes and subscribes to keys with one blocking call each, and serves
// the manager's "notify_config" change notifications by calling the callback
// subscribed for the key.
//
// Result codes: 0 success; 100000 the call failed or its reply was
// unreadable; 100100 (reads only) success without a readable value; any other
// value is the manager's own code, passed through.  A "notify_config" is
// answered with the subscriber's result: 0 applied, kValueRefused refused.

#include <cstdint>
#include <map>
#include <string>

#include "common/dbus/src/dbus_message.h"
#include "common/platform/src/functor/Functor.h"
#include "common/platform/src/lock/Mutex.h"
#include "component/dbus_channel.h"

namespace Zentrova {
namespace Iot {
namespace Component {

// (key, value, result): result starts at 0 and becomes the notification's answer.
using CConfigCallback = Platform::CFunctor<const std::string&, const std::string&, int&>;

class CConfigAgent {
 public:
  static constexpr int32_t kCallFailed = 100000;
  static constexpr int32_t kNoValue = 100100;
  // What a subscriber's callback answers for a value it refused (and did not apply).
  static constexpr int32_t kValueRefused = 100200;

  // Registers "notify_config" with the channel, which must outlive the agent.
  CConfigAgent(CDBusChannel* channel, const std::string& name);
  // Withdraws the handler; subscriptions at the manager stay.
  ~CConfigAgent();
  CConfigAgent(const CConfigAgent&) = delete;
  CConfigAgent& operator=(const CConfigAgent&) = delete;

  // `value` is left untouched unless the result is 0.
  int32_t get_config(const std::string& key, std::string& value, uint32_t timeoutMs);
  int32_t set_config(const std::string& key, const std::string& value, uint32_t timeoutMs, bool security);
  // The callback is kept only when the manager accepts.
  int32_t subscribe_config(const std::string& key, const CConfigCallback& callback, int32_t mode,
                           uint32_t timeoutMs);
  // The callback is dropped even when the manager call fails.
  int32_t unsubscribe_config(const std::string& key, uint32_t timeoutMs);
  int32_t flush_config(uint32_t timeoutMs);
  int32_t reset_config(uint32_t timeoutMs);

  // Runs on the channel's callback worker.
  void notify_config(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply);

 private:
  DBus::CDBusMethodCall request(const char* member) const;
  // Sends `call` and returns the manager's code, or kCallFailed when the call
  // itself failed.  Failures are logged under `func`'s name as
  // "<call_who> block_call [N] fail." and "<code_who> code [N] fail.".
  int32_t code_call(const char* func, DBus::CDBusMethodCall& call, uint32_t timeoutMs, const std::string& call_who,
                    const std::string& code_who);

  CDBusChannel* m_channel;
  std::string m_name;
  Platform::CMutex m_lock;
  std::map<std::string, CConfigCallback> m_callbacks;
};

}  // namespace Component
}  // namespace Iot
}  // namespace Zentrova
