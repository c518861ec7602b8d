#pragma once
// CDBusMessage: a value type over one libdbus message reference, with one
// position for appending arguments and one for reading them, both strictly in
// order.  Every read checks the type code of the next argument first; a
// mismatch is logged and reported, never coerced.  The kinds below differ only
// in how their message is created.

#include <dbus/dbus.h>

#include <cstdint>
#include <string>

namespace Zentrova {
namespace Iot {
namespace DBus {

class CDBusMessage {
 public:
  // Takes its own reference on `message`; null gives an empty wrapper on which
  // every reader and writer returns false.
  explicit CDBusMessage(DBusMessage* message);
  // A new empty message of `type` (DBUS_MESSAGE_TYPE_*).
  explicit CDBusMessage(int type);
  CDBusMessage(const CDBusMessage& other);
  // Takes the other's message; reading always restarts at the first argument,
  // also on self-assignment.
  CDBusMessage& operator=(const CDBusMessage& other);
  virtual ~CDBusMessage();

  DBusMessage* get_message() const { return m_message; }
  std::string get_path() const;
  std::string get_interface() const;
  std::string get_member() const;

  bool set_string(const std::string& value);
  bool get_string(std::string& out);
  bool set_int32(int32_t value);
  bool get_int32(int32_t& out);
  bool set_uint32(uint32_t value);
  bool get_uint32(uint32_t& out);
  bool set_uint64(uint64_t value);
  bool get_uint64(uint64_t& out);
  // One byte array.
  bool set_array(const uint8_t* data, int32_t length);
  // A fresh malloc'ed copy of the next byte array, released by the caller with
  // free().  An empty array is a failure: callers never get a zero-length buffer.
  bool get_array(uint8_t*& out_data, int32_t& out_length);

 protected:
  // Replaces the held message by `message`, whose reference the wrapper takes
  // over (no count change).
  void adopt(DBusMessage* message);

 private:
  bool get_next_iter(int expected_type);
  bool can_append() const;
  bool append_basic(int type, const void* value);
  bool get_basic(int type, void* value);
  void hold(DBusMessage* message);

  DBusMessage* m_message = nullptr;
  DBusMessageIter* m_readIter = nullptr;
  DBusMessageIter* m_appendIter = nullptr;
};

class CDBusMethodCall : public CDBusMessage {
 public:
  CDBusMethodCall();
  explicit CDBusMethodCall(DBusMessage* message);
  // An empty destination or interface is left out.  A name the bus would
  // refuse gives an empty wrapper instead of a message.
  CDBusMethodCall(const std::string& destination, const std::string& path, const std::string& interface,
                  const std::string& method);
};

class CDBusSignal : public CDBusMessage {
 public:
  CDBusSignal();
  explicit CDBusSignal(DBusMessage* message);
  // An empty destination makes a broadcast.  A name the bus would refuse
  // gives an empty wrapper instead of a message.
  CDBusSignal(const std::string& destination, const std::string& path, const std::string& interface,
              const std::string& member);
};

class CDBusMethodReturn : public CDBusMessage {
 public:
  CDBusMethodReturn();
  explicit CDBusMethodReturn(DBusMessage* message);
  // The return that answers `call`.  A call that was never sent has no serial
  // to answer, so it gets a plain unaddressed return; an empty call, an empty
  // wrapper.
  explicit CDBusMethodReturn(const CDBusMethodCall& call);

  bool is_method_return() const;
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
