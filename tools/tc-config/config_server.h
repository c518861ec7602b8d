#pragma once
// CConfigServer: the development configuration manager on the bus.  It owns
// "iot.dmp.configmanager", answers every method the configuration agent
// calls, remembers subscriptions per (subscriber bus name, key), and sends
// each change to the key's subscribers as "notify_config" without waiting for
// them: a subscriber may call back into the manager while it handles one.
//
// Reply codes: 0 success, 1 malformed request, 2 the store file could not be
// written.  get_config adds the value after a 0; list_config adds the store
// as a JSON object text.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "common/dbus/src/dbus_message.h"
#include "common/platform/src/lock/Mutex.h"
#include "component/dbus_channel.h"
#include "tools/tc-config/config_store.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

class CConfigServer {
 public:
  static constexpr int32_t kBadRequest = 1;
  static constexpr int32_t kNotWritten = 2;

  // The store must outlive the server.
  CConfigServer(const std::string& address, CConfigStore* store);
  ~CConfigServer();
  CConfigServer(const CConfigServer&) = delete;
  CConfigServer& operator=(const CConfigServer&) = delete;

  bool start();
  void stop();
  void set_error_callback(const Component::CDBusErrorCallback& callback);
  // Every later request about `key` gets `code` alone and changes nothing; an
  // empty `code` is an answer without any argument.  For trying a subscriber
  // against a manager that refuses or answers short.
  void answer_as_told(const std::string& key, const std::string& code) { m_told[key] = code; }

  // The object path a subscriber is notified at: its bus name with dots as
  // slashes ("iot.gateway.transparentchannel" -> "/iot/gateway/transparentchannel"),
  // or "" when that is no valid path.
  static std::string path_of(const std::string& subscriber);

 private:
  using Call = DBus::CDBusMethodCall;
  using Return = DBus::CDBusMethodReturn;

  void get_config(Call& call, Return& reply);
  void set_config(Call& call, Return& reply);
  void set_config_security(Call& call, Return& reply);
  void subscribe_config(Call& call, Return& reply);
  void unsubscribe_config(Call& call, Return& reply);
  void flush_config(Call& call, Return& reply);
  void reset_config(Call& call, Return& reply);
  void list_config(Call& call, Return& reply);

  void store_value(Call& call, Return& reply);
  // True when `key` has a told answer, now sent in `reply`.
  bool answered_as_told(Call& call, const std::string& key, Return& reply);
  void notify(const std::string& key, const std::string& value);
  // Runs on the reader thread when a subscriber answers.
  void notify_result(uint32_t status, Return& reply, uint64_t context);

  CConfigStore* m_store;
  std::map<std::string, std::string> m_told;  // key -> code, set before start()
  // (key, subscriber); handlers only, all on the callback worker.
  std::set<std::pair<std::string, std::string>> m_subscriptions;
  // Notifications awaiting their answer: context -> (key, subscriber).
  Platform::CMutex m_lock;
  std::map<uint64_t, std::pair<std::string, std::string>> m_pending;
  uint64_t m_nextContext = 0;
  // Last, so it goes first: its threads may still report to the fields above.
  Component::CDBusChannel m_channel;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
