#include "common/dbus/src/dbus_message.h"

#include <cstdlib>
#include <cstring>

#include "common/log/log.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

namespace {

DBusMessageIter* new_iter() {
  auto* iter = new DBusMessageIter;
  std::memset(iter, 0, sizeof *iter);
  return iter;
}

std::string text_or_empty(const char* text) { return text ? text : ""; }

// libdbus aborts the process on arguments it considers a programming error
// (bad names, invalid UTF-8); these checks turn them into plain failures.
bool optional_bus_name(const std::string& name) {
  return name.empty() || dbus_validate_bus_name(name.c_str(), nullptr);
}

bool optional_interface(const std::string& name) {
  return name.empty() || dbus_validate_interface(name.c_str(), nullptr);
}

const char* or_null(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

}  // namespace

CDBusMessage::CDBusMessage(DBusMessage* message) : m_appendIter(new_iter()) {
  if (message) dbus_message_ref(message);
  hold(message);
}

CDBusMessage::CDBusMessage(int type) : m_appendIter(new_iter()) {
  const bool known = type == DBUS_MESSAGE_TYPE_METHOD_CALL || type == DBUS_MESSAGE_TYPE_METHOD_RETURN ||
                     type == DBUS_MESSAGE_TYPE_ERROR || type == DBUS_MESSAGE_TYPE_SIGNAL;
  hold(known ? dbus_message_new(type) : nullptr);
}

CDBusMessage::CDBusMessage(const CDBusMessage& other) : m_appendIter(new_iter()) {
  if (other.m_message) dbus_message_ref(other.m_message);
  hold(other.m_message);
}

CDBusMessage& CDBusMessage::operator=(const CDBusMessage& other) {
  if (other.m_message != m_message) {
    if (other.m_message) dbus_message_ref(other.m_message);
    if (m_message) dbus_message_unref(m_message);
    hold(other.m_message);
  }
  delete m_readIter;
  m_readIter = nullptr;
  return *this;
}

CDBusMessage::~CDBusMessage() {
  if (m_message) dbus_message_unref(m_message);
  delete m_readIter;
  delete m_appendIter;
}

void CDBusMessage::hold(DBusMessage* message) {
  m_message = message;
  std::memset(m_appendIter, 0, sizeof *m_appendIter);
  if (m_message) dbus_message_iter_init_append(m_message, m_appendIter);
}

void CDBusMessage::adopt(DBusMessage* message) {
  if (m_message) dbus_message_unref(m_message);
  delete m_readIter;
  m_readIter = nullptr;
  hold(message);
}

std::string CDBusMessage::get_path() const {
  return m_message ? text_or_empty(dbus_message_get_path(m_message)) : "";
}

std::string CDBusMessage::get_interface() const {
  return m_message ? text_or_empty(dbus_message_get_interface(m_message)) : "";
}

std::string CDBusMessage::get_member() const {
  return m_message ? text_or_empty(dbus_message_get_member(m_message)) : "";
}

// A message that was sent or received carries a serial and is locked by
// libdbus, which aborts on an append to it.
bool CDBusMessage::can_append() const { return m_message && dbus_message_get_serial(m_message) == 0; }

bool CDBusMessage::append_basic(int type, const void* value) {
  if (!can_append()) return false;
  return dbus_message_iter_append_basic(m_appendIter, type, value);
}

bool CDBusMessage::get_basic(int type, void* value) {
  if (!m_message || !get_next_iter(type)) return false;
  dbus_message_iter_get_basic(m_readIter, value);
  return true;
}

bool CDBusMessage::get_next_iter(int expected_type) {
  if (!m_readIter) {
    m_readIter = new_iter();
    if (!dbus_message_iter_init(m_message, m_readIter)) {
      TC_LOG(2, "get_next_iter dbus_message_iter_init fail.");
      return false;
    }
  } else {
    if (!dbus_message_iter_has_next(m_readIter)) {
      TC_LOG(2, "get_next_iter dbus_message_iter_has_next fail.");
      return false;
    }
    if (!dbus_message_iter_next(m_readIter)) {
      TC_LOG(2, "get_next_iter dbus_message_iter_next fail.");
      return false;
    }
  }
  const int found = dbus_message_iter_get_arg_type(m_readIter);
  if (found != expected_type) {
    TC_LOG(2, "get_next_iter type(%d) dbus_message_iter_get_arg_type(%d) not match.", expected_type, found);
    return false;
  }
  return true;
}

bool CDBusMessage::set_string(const std::string& value) {
  if (!can_append() || !dbus_validate_utf8(value.c_str(), nullptr)) return false;
  const char* text = value.c_str();
  return append_basic(DBUS_TYPE_STRING, &text);
}

bool CDBusMessage::get_string(std::string& out) {
  const char* text = nullptr;
  if (!get_basic(DBUS_TYPE_STRING, &text)) return false;
  out = text_or_empty(text);
  return true;
}

bool CDBusMessage::set_int32(int32_t value) {
  const dbus_int32_t v = value;
  return append_basic(DBUS_TYPE_INT32, &v);
}

bool CDBusMessage::get_int32(int32_t& out) {
  dbus_int32_t v = 0;
  if (!get_basic(DBUS_TYPE_INT32, &v)) return false;
  out = v;
  return true;
}

bool CDBusMessage::set_uint32(uint32_t value) {
  const dbus_uint32_t v = value;
  return append_basic(DBUS_TYPE_UINT32, &v);
}

bool CDBusMessage::get_uint32(uint32_t& out) {
  dbus_uint32_t v = 0;
  if (!get_basic(DBUS_TYPE_UINT32, &v)) return false;
  out = v;
  return true;
}

bool CDBusMessage::set_uint64(uint64_t value) {
  const dbus_uint64_t v = value;
  return append_basic(DBUS_TYPE_UINT64, &v);
}

bool CDBusMessage::get_uint64(uint64_t& out) {
  dbus_uint64_t v = 0;
  if (!get_basic(DBUS_TYPE_UINT64, &v)) return false;
  out = v;
  return true;
}

bool CDBusMessage::set_array(const uint8_t* data, int32_t length) {
  if (!can_append()) return false;
  DBusMessageIter sub;
  if (!dbus_message_iter_open_container(m_appendIter, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &sub)) {
    TC_LOG(2, "set_array dbus_message_iter_open_container fail.");
    return false;
  }
  static const uint8_t kNothing = 0;
  const uint8_t* bytes = (data && length > 0) ? data : &kNothing;
  const bool valid = length == 0 || (length > 0 && data);
  if (!valid || !dbus_message_iter_append_fixed_array(&sub, DBUS_TYPE_BYTE, &bytes, valid ? length : 0)) {
    TC_LOG(2, "set_array dbus_message_iter_append_fixed_array fail.");
    dbus_message_iter_abandon_container(m_appendIter, &sub);
    return false;
  }
  if (!dbus_message_iter_close_container(m_appendIter, &sub)) {
    TC_LOG(2, "set_array dbus_message_iter_close_container fail.");
    return false;
  }
  return true;
}

bool CDBusMessage::get_array(uint8_t*& out_data, int32_t& out_length) {
  if (!m_message || !get_next_iter(DBUS_TYPE_ARRAY)) return false;
  const void* contents = nullptr;
  int count = 0;
  // Contents are taken as bytes whatever the element type, but libdbus can
  // only hand out arrays of fixed-size elements (and aborts on others).
  const int element = dbus_message_iter_get_element_type(m_readIter);
  if (dbus_type_is_fixed(element) && element != DBUS_TYPE_UNIX_FD) {
    DBusMessageIter sub;
    dbus_message_iter_recurse(m_readIter, &sub);
    dbus_message_iter_get_fixed_array(&sub, &contents, &count);
  }
  if (contents == nullptr || count <= 0) {
    TC_LOG(2, "get_array dbus_message_iter_get_fixed_array fail.");
    return false;
  }
  auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(count)));
  if (!buffer) return false;
  std::memcpy(buffer, contents, static_cast<size_t>(count));
  out_data = buffer;
  out_length = count;
  return true;
}

CDBusMethodCall::CDBusMethodCall() : CDBusMessage(DBUS_MESSAGE_TYPE_METHOD_CALL) {}

CDBusMethodCall::CDBusMethodCall(DBusMessage* message) : CDBusMessage(message) {}

CDBusMethodCall::CDBusMethodCall(const std::string& destination, const std::string& path,
                                 const std::string& interface, const std::string& method)
    : CDBusMessage(nullptr) {
  if (optional_bus_name(destination) && dbus_validate_path(path.c_str(), nullptr) &&
      optional_interface(interface) && dbus_validate_member(method.c_str(), nullptr)) {
    adopt(dbus_message_new_method_call(or_null(destination), path.c_str(), or_null(interface), method.c_str()));
  }
}

CDBusSignal::CDBusSignal() : CDBusMessage(DBUS_MESSAGE_TYPE_SIGNAL) {}

CDBusSignal::CDBusSignal(DBusMessage* message) : CDBusMessage(message) {}

CDBusSignal::CDBusSignal(const std::string& destination, const std::string& path, const std::string& interface,
                         const std::string& member)
    : CDBusMessage(nullptr) {
  if (!optional_bus_name(destination) || !dbus_validate_path(path.c_str(), nullptr) ||
      !dbus_validate_interface(interface.c_str(), nullptr) || !dbus_validate_member(member.c_str(), nullptr)) {
    return;
  }
  DBusMessage* signal = dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str());
  if (signal && !destination.empty() && !dbus_message_set_destination(signal, destination.c_str())) {
    dbus_message_unref(signal);
    signal = nullptr;
  }
  adopt(signal);
}

CDBusMethodReturn::CDBusMethodReturn() : CDBusMessage(DBUS_MESSAGE_TYPE_METHOD_RETURN) {}

CDBusMethodReturn::CDBusMethodReturn(DBusMessage* message) : CDBusMessage(message) {}

CDBusMethodReturn::CDBusMethodReturn(const CDBusMethodCall& call) : CDBusMessage(nullptr) {
  DBusMessage* request = call.get_message();
  if (!request) return;
  if (dbus_message_get_serial(request) == 0) {
    adopt(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
  } else {
    adopt(dbus_message_new_method_return(request));
  }
}

bool CDBusMethodReturn::is_method_return() const {
  return get_message() && dbus_message_get_type(get_message()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
