// Arbitrary D-Bus messages read through CDBusMessage: libdbus builds a
// message from the input's wire bytes (inputs it rejects are skipped), then
// the readers run in an order the input chooses.
//
// Input:
//   byte 0       n: how many steps follow (n % 32)
//   n bytes      the steps (see step() below)
//   the rest     the marshalled message
//
// libdbus's own argument checks are made fatal, so that any call the
// wrappers make against its rules (a read of the wrong type, an append to a
// received message) ends as a crash instead of a warning.

#include <dbus/dbus.h>

#include <algorithm>
#include <string>

#include "common/dbus/src/dbus_message.h"
#include "fuzz/fuzz_check.h"

using namespace Zentrova::Iot::DBus;

namespace {

void step(CDBusMessage& message, uint8_t code) {
  std::string s;
  int32_t i32 = 0;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  uint8_t* bytes = nullptr;
  const uint8_t byte = 0;
  switch (code % 12) {
    case 0: message.get_string(s); break;
    case 1: message.get_int32(i32); break;
    case 2: message.get_uint32(u32); break;
    case 3: message.get_uint64(u64); break;
    case 4:
      if (message.get_array(bytes, i32)) {
        check(bytes != nullptr && i32 > 0, "get_array: empty success");
        free(bytes);
      }
      break;
    case 5: s = message.get_path() + message.get_interface() + message.get_member(); break;
    case 6:  // a copy reads from the first argument on
    case 7: {  // an assignment, of the same message or of a replica as received, restarts reading
      DBusMessage* replica = dbus_message_copy(message.get_message());
      dbus_message_set_serial(replica, 1);
      CDBusMessage copy(message);
      if (code % 12 == 7) message = (code & 0x80) ? CDBusMessage(replica) : copy;
      dbus_message_unref(replica);
      CDBusMessage& reader = code % 12 == 6 ? copy : message;
      std::string first;
      const bool read = CDBusMessage(reader.get_message()).get_string(first);
      check(reader.get_string(s) == read && s == first, "reading did not start at the first argument");
      break;
    }
    case 8:
      // A received message carries a serial, so it is locked: every append fails.
      check(!message.set_string("x") && !message.set_int32(1) && !message.set_uint64(2) &&
                !message.set_array(&byte, 1),
            "append to a received message succeeded");
      break;
    case 9: {
      // Answering it as a call, as the method dispatch does.
      CDBusMethodReturn reply{CDBusMethodCall(message.get_message())};
      if (!reply.get_message()) break;
      check(reply.is_method_return(), "reply is not a method return");
      reply.set_string("reply");
      break;
    }
    case 10: CDBusSignal(message.get_message()).get_string(s); break;
    default: {
      CDBusMethodReturn as_return(message.get_message());
      as_return.is_method_return();
      as_return.get_uint32(u32);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("DBUS_FATAL_WARNINGS", "1", 1);
  fuzz_quiet_log();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t count = std::min<size_t>(data[0] % 32, size - 1);
  DBusError error;
  dbus_error_init(&error);
  DBusMessage* raw = dbus_message_demarshal(reinterpret_cast<const char*>(data + 1 + count),
                                            static_cast<int>(size - 1 - count), &error);
  if (!raw) {
    dbus_error_free(&error);
    return 0;
  }
  CDBusMessage message(raw);
  dbus_message_unref(raw);
  for (size_t i = 0; i < count; ++i) step(message, data[1 + i]);
  return 0;
}
