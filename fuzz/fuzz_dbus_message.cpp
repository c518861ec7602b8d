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

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/dbus/src/dbus_message.h"
#include "fuzz/fuzz_log.h"

using Zentrova::Iot::DBus::CDBusMessage;
using Zentrova::Iot::DBus::CDBusMethodCall;
using Zentrova::Iot::DBus::CDBusMethodReturn;
using Zentrova::Iot::DBus::CDBusSignal;

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz_dbus_message: %s\n", what);
  std::abort();
}

void step(CDBusMessage& message, uint8_t code) {
  switch (code % 12) {
    case 0: {
      std::string s;
      message.get_string(s);
      break;
    }
    case 1: {
      int32_t v = 0;
      message.get_int32(v);
      break;
    }
    case 2: {
      uint32_t v = 0;
      message.get_uint32(v);
      break;
    }
    case 3: {
      uint64_t v = 0;
      message.get_uint64(v);
      break;
    }
    case 4: {
      uint8_t* bytes = nullptr;
      int32_t length = 0;
      if (message.get_array(bytes, length)) {
        check(bytes != nullptr && length > 0, "get_array: empty success");
        free(bytes);
      }
      break;
    }
    case 5:
      message.get_path();
      message.get_interface();
      message.get_member();
      break;
    case 6: {
      // A copy reads from the first argument on, independently.
      CDBusMessage copy(message);
      std::string s;
      copy.get_string(s);
      break;
    }
    case 7:
      // Reading restarts at the first argument.
      message = CDBusMessage(message);
      break;
    case 8: {
      // A received message carries a serial, so it is locked: every append fails.
      check(!message.set_string("x") && !message.set_int32(1) && !message.set_uint64(2),
            "append to a received message succeeded");
      const uint8_t byte = 0;
      check(!message.set_array(&byte, 1), "append to a received message succeeded");
      break;
    }
    case 9: {
      // Answering it as a call, as the method dispatch does.
      CDBusMethodCall call(message.get_message());
      CDBusMethodReturn reply(call);
      if (reply.get_message()) {
        check(reply.is_method_return(), "reply is not a method return");
        reply.set_string("reply");
      }
      break;
    }
    case 10: {
      CDBusSignal signal(message.get_message());
      std::string s;
      signal.get_string(s);
      break;
    }
    default: {
      CDBusMethodReturn as_return(message.get_message());
      as_return.is_method_return();
      uint32_t v = 0;
      as_return.get_uint32(v);
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("DBUS_FATAL_WARNINGS", "1", 1);
  fuzz_log_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t count = data[0] % 32;
  if (count > size - 1) count = size - 1;
  const uint8_t* steps = data + 1;
  const char* wire = reinterpret_cast<const char*>(data + 1 + count);
  const int wire_len = static_cast<int>(size - 1 - count);

  DBusError error;
  dbus_error_init(&error);
  DBusMessage* raw = dbus_message_demarshal(wire, wire_len, &error);
  if (!raw) {
    dbus_error_free(&error);
    return 0;
  }
  CDBusMessage message(raw);
  dbus_message_unref(raw);
  for (size_t i = 0; i < count; ++i) step(message, steps[i]);
  return 0;
}
