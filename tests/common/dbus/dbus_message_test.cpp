// The argument codec on messages built in memory.

#include "common/dbus/src/dbus_message.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::DBus;

namespace {

std::string read_array(CDBusMessage& message) {
  uint8_t* data = nullptr;
  int32_t length = -1;
  if (!message.get_array(data, length)) return data == nullptr && length == -1 ? "fail" : "fail, output touched";
  std::string bytes(reinterpret_cast<char*>(data), static_cast<size_t>(length));
  std::free(data);
  return bytes;
}

// Every writer and reader round trips; a failed read logs one line, leaves
// its output alone and passes the argument, so the next read takes the
// following one.
TEST(DBusMessage, ArgumentsRoundTripAndAFailedReadIsLoggedAndPassesItsArgument) {
  tc_test::LogCaptureScope log;
  CDBusMethodCall call("tc.test.peer", "/tc/test", "tc.test.iface", "method");
  ASSERT_TRUE(call.set_string("key") && call.set_string("h\xc3\xa9llo") && call.set_int32(-2147483647 - 1) &&
              call.set_uint32(0xffffffffu) && call.set_uint64(0xfedcba9876543210ull) && call.set_array(nullptr, 0) &&
              call.set_array(reinterpret_cast<const uint8_t*>("\0\x7f\xff"), 3) && call.set_string(""));
  std::string text = "untouched";
  int32_t i32 = -1;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  EXPECT_FALSE(call.get_int32(i32));
  EXPECT_EQ(i32, -1);
  EXPECT_TRUE(call.get_string(text) && text == "h\xc3\xa9llo") << text;
  EXPECT_TRUE(call.get_int32(i32) && i32 == -2147483647 - 1) << i32;
  EXPECT_TRUE(call.get_uint32(u32) && u32 == 0xffffffffu) << u32;
  EXPECT_TRUE(call.get_uint64(u64) && u64 == 0xfedcba9876543210ull) << u64;
  EXPECT_EQ(read_array(call), "fail") << "an empty byte array";
  EXPECT_EQ(read_array(call), std::string("\0\x7f\xff", 3));
  EXPECT_TRUE(call.get_string(text) && text.empty()) << text;
  text = "untouched";
  EXPECT_FALSE(call.get_string(text));
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(call.get_path() + " " + call.get_interface() + " " + call.get_member(), "/tc/test tc.test.iface method");
  CDBusMethodCall bare("tc.test.peer", "/tc/test", "tc.test.iface", "method");  // no arguments at all
  EXPECT_FALSE(bare.get_string(text));
  EXPECT_FALSE(bare.get_string(text));
  EXPECT_EQ(log.dump(),
            "2 get_next_iter: get_next_iter type(105) dbus_message_iter_get_arg_type(115) not match.\n"
            "2 get_array: get_array dbus_message_iter_get_fixed_array fail.\n"
            "2 get_next_iter: get_next_iter dbus_message_iter_has_next fail.\n"
            "2 get_next_iter: get_next_iter dbus_message_iter_init fail.\n"
            "2 get_next_iter: get_next_iter dbus_message_iter_has_next fail.\n");
}

}  // namespace
