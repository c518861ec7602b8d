// The argument codec on messages built in memory.

#include "common/dbus/src/dbus_message.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::DBus;
using tc_test::LogCaptureScope;

namespace {

const char* const kMismatch = "get_next_iter type(105) dbus_message_iter_get_arg_type(115) not match.";
const char* const kHasNext = "get_next_iter dbus_message_iter_has_next fail.";
const char* const kInit = "get_next_iter dbus_message_iter_init fail.";
const char* const kFixedArray = "get_array dbus_message_iter_get_fixed_array fail.";

CDBusMethodCall make_call() { return CDBusMethodCall("tc.test.peer", "/tc/test", "tc.test.iface", "method"); }

TEST(DBusMessage, EveryWriterAndReaderRoundTrips) {
  CDBusMethodCall call = make_call();
  const uint8_t bytes[3] = {0x00, 0x7f, 0xff};
  ASSERT_TRUE(call.set_string("h\xc3\xa9llo"));
  ASSERT_TRUE(call.set_int32(-2147483647 - 1));
  ASSERT_TRUE(call.set_uint32(0xffffffffu));
  ASSERT_TRUE(call.set_uint64(0xfedcba9876543210ull));
  ASSERT_TRUE(call.set_array(bytes, 3));
  ASSERT_TRUE(call.set_string(""));

  std::string text;
  int32_t i32 = 0;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  uint8_t* data = nullptr;
  int32_t length = 0;
  EXPECT_TRUE(call.get_string(text));
  EXPECT_EQ(text, "h\xc3\xa9llo");
  EXPECT_TRUE(call.get_int32(i32));
  EXPECT_EQ(i32, -2147483647 - 1);
  EXPECT_TRUE(call.get_uint32(u32));
  EXPECT_EQ(u32, 0xffffffffu);
  EXPECT_TRUE(call.get_uint64(u64));
  EXPECT_EQ(u64, 0xfedcba9876543210ull);
  ASSERT_TRUE(call.get_array(data, length));
  ASSERT_EQ(length, 3);
  EXPECT_EQ(std::memcmp(data, bytes, 3), 0);
  std::free(data);
  EXPECT_TRUE(call.get_string(text));
  EXPECT_EQ(text, "");
  EXPECT_EQ(call.get_path(), "/tc/test");
  EXPECT_EQ(call.get_interface(), "tc.test.iface");
  EXPECT_EQ(call.get_member(), "method");
}

TEST(DBusMessage, MismatchAndExhaustionAreLoggedAndTheNextReadTakesTheFollowingArgument) {
  LogCaptureScope log;
  CDBusMethodCall call = make_call();
  call.set_string("key");
  call.set_int32(42);
  int32_t value = -1;
  EXPECT_FALSE(call.get_int32(value));
  EXPECT_EQ(value, -1) << "output must stay untouched";
  EXPECT_EQ(log.count(kMismatch), 1u) << log.dump();
  EXPECT_TRUE(call.get_int32(value));
  EXPECT_EQ(value, 42);
  std::string text = "untouched";
  EXPECT_FALSE(call.get_string(text));
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(log.count(kHasNext), 1u) << log.dump();
  CDBusMethodCall bare = make_call();  // no arguments at all
  EXPECT_FALSE(bare.get_string(text));
  EXPECT_EQ(log.count(kInit), 1u);
  EXPECT_FALSE(bare.get_string(text));
  EXPECT_EQ(log.count(kHasNext), 2u) << log.dump();
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.level, 2);
    EXPECT_EQ(line.function, "get_next_iter");
  }
}

TEST(DBusMessage, AssignmentRestartsReadingAndSharesTheMessage) {
  CDBusMethodCall call = make_call();
  call.set_string("first");
  call.set_string("second");
  std::string text;
  ASSERT_TRUE(call.get_string(text));
  CDBusMethodCall& same = call;
  call = same;
  ASSERT_TRUE(call.get_string(text));
  EXPECT_EQ(text, "first") << "self-assignment restarts at the first argument";

  CDBusMethodCall copy(call);  // shares the message (independent reads are fuzzed)
  EXPECT_EQ(copy.get_message(), call.get_message());
  CDBusMethodCall other = make_call();
  other.set_int32(7);
  copy = other;  // drops its reference to the first message, takes the other's
  int32_t value = 0;
  EXPECT_EQ(copy.get_message(), other.get_message());
  EXPECT_TRUE(copy.get_int32(value));
  EXPECT_EQ(value, 7);
  ASSERT_TRUE(call.get_string(text));
  EXPECT_EQ(text, "second") << "the original keeps its message and position";
}

TEST(DBusMessage, AnEmptyByteArrayReadsAsAFailure) {
  LogCaptureScope log;
  CDBusMethodCall call = make_call();
  const uint8_t three[3] = {1, 2, 3};
  ASSERT_TRUE(call.set_array(nullptr, 0));
  ASSERT_TRUE(call.set_array(three, 3));
  uint8_t* data = nullptr;
  int32_t length = -1;
  EXPECT_FALSE(call.get_array(data, length));
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(length, -1);
  EXPECT_EQ(log.count(kFixedArray), 1u) << log.dump();
  ASSERT_TRUE(call.get_array(data, length));
  EXPECT_EQ(length, 3);
  EXPECT_EQ(data[2], 3);
  std::free(data);
}

TEST(DBusMessage, RepliesAnswerTheCallsSerial) {
  CDBusMethodCall call = make_call();
  ASSERT_TRUE(call.set_int32(1));
  dbus_message_set_serial(call.get_message(), 77);  // as the connection does on send

  CDBusMethodReturn reply(call);
  ASSERT_NE(reply.get_message(), nullptr);
  EXPECT_TRUE(reply.is_method_return());
  EXPECT_EQ(dbus_message_get_reply_serial(reply.get_message()), 77u);
  EXPECT_TRUE(reply.set_int32(3));

  CDBusMethodReturn unanswered(make_call());  // never sent: nothing to answer
  EXPECT_TRUE(unanswered.is_method_return());
  EXPECT_EQ(dbus_message_get_reply_serial(unanswered.get_message()), 0u);

  DBusMessage* error = dbus_message_new_error(call.get_message(), "tc.test.Error", "no");
  CDBusMethodReturn failed(error);
  dbus_message_unref(error);
  EXPECT_FALSE(failed.is_method_return());
  EXPECT_FALSE(CDBusMethodReturn(nullptr).is_method_return());
}

}  // namespace
