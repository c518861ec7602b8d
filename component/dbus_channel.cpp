#include "component/dbus_channel.h"

#include <dbus/dbus.h>

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

const char* const kIntrospectable = "org.freedesktop.DBus.Introspectable";
const char* const kPeer = "org.freedesktop.DBus.Peer";
const char* const kXmlHead =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";
const char* const kStandardInterfaces =
    "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "    <method name=\"Introspect\">\n"
    "      <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n"
    "  <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "    <method name=\"Ping\"/>\n"
    "    <method name=\"GetMachineId\">\n"
    "      <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n";

// One <arg/> per complete type of `signature`.
void append_args(std::string& xml, const std::string& signature, const char* direction) {
  if (signature.empty() || !dbus_signature_validate(signature.c_str(), nullptr)) return;
  DBusSignatureIter it;
  dbus_signature_iter_init(&it, signature.c_str());
  do {
    char* type = dbus_signature_iter_get_signature(&it);
    xml += std::string("      <arg type=\"") + type + "\" direction=\"" + direction + "\"/>\n";
    dbus_free(type);
  } while (dbus_signature_iter_next(&it));
}

// The name of the node below `parent` on the way to `path`; empty when
// `path` is not below `parent`.
std::string child_towards(const std::string& parent, const std::string& path) {
  const std::string prefix = parent == "/" ? parent : parent + "/";
  if (path.compare(0, prefix.size(), prefix) != 0 || path.size() == prefix.size()) return "";
  const std::string rest = path.substr(prefix.size());
  return rest.substr(0, rest.find('/'));
}
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

void CDBusChannel::register_method(const std::string& member, const CDBusMethodHandler& handler,
                                   const std::string& in, const std::string& out) {
  CMutexGuard guard(&m_lock);
  m_methods[member] = Method{handler, in, out};
}

void CDBusChannel::register_signal(const std::string& member, const CDBusSignalHandler& handler) {
  CMutexGuard guard(&m_lock);
  m_signals[member] = handler;
}

// Handlers are copied under the lock and run without it, so they may register
// handlers themselves, and a replaced handler finishes on its old copy.
void CDBusChannel::message_method(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply, bool& sendReply) {
  (void)sendReply;  // every call is answered, an unknown one with an empty return
  if (standard_method(call, reply)) return;
  const std::string member = call.get_member();
  CDBusMethodHandler handler;
  bool found = false;
  {
    CMutexGuard guard(&m_lock);
    auto it = m_methods.find(member);
    if (it != m_methods.end()) {
      handler = it->second.handler;
      found = true;
    }
  }
  if (!found) {
    TC_LOG(2, "message_request, recvice unknow method, member:%s.", member.c_str());
    return;
  }
  handler(call, reply);
}

bool CDBusChannel::standard_method(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply) {
  const std::string interface = call.get_interface();
  const std::string member = call.get_member();
  if (interface == kIntrospectable && member == "Introspect") {
    reply.set_string(introspect(call.get_path()));
    return true;
  }
  if (interface != kPeer) return false;
  if (member == "Ping") return true;
  if (member != "GetMachineId") return false;
  // /etc/machine-id, else /var/lib/dbus/machine-id.
  DBusError error;
  dbus_error_init(&error);
  char* id = dbus_try_get_local_machine_id(&error);
  if (id) {
    reply.set_string(id);
    dbus_free(id);
  } else {
    TC_LOG(2, "message_method, no machine id: %s", error.message ? error.message : "");
    dbus_error_free(&error);
  }
  return true;
}

std::string CDBusChannel::introspect(const std::string& path) {
  std::string xml = std::string(kXmlHead) + "<node>\n";
  if (path == m_path) {
    xml += kStandardInterfaces;
    xml += "  <interface name=\"" + m_name + "\">\n";
    CMutexGuard guard(&m_lock);
    for (const auto& [member, method] : m_methods) {
      if (method.handler.empty()) continue;
      xml += "    <method name=\"" + member + "\">\n";
      append_args(xml, method.in, "in");
      append_args(xml, method.out, "out");
      xml += "    </method>\n";
    }
    xml += "  </interface>\n";
  } else {
    // The nodes on the way down, so that a tree walk finds the object.
    const std::string child = child_towards(path, m_path);
    if (!child.empty()) xml += "  <node name=\"" + child + "\"/>\n";
  }
  return xml + "</node>\n";
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
