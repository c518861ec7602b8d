// Validation of "gw_tc_serial_devices", item by item.

#include <gtest/gtest.h>

#include <string>

#include "service/serial_device_config.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;
using tc_test::LogCaptureScope;

namespace {

// One item with every field valid; `remote` members may be replaced by raw JSON.
std::string item(const std::string& local = "\"/tmp/ttyV0\"", const std::string& field = "",
                 const std::string& raw = "") {
  std::string remote = "\"ip\":\"10.0.0.2\",\"device\":\"ttyS1\",\"baud_rate\":9600,\"data_bit\":8,"
                       "\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":0";
  if (!field.empty()) {
    const size_t at = remote.find("\"" + field + "\":");
    const size_t end = remote.find_first_of(",", at);
    remote.replace(at, (end == std::string::npos ? remote.size() : end) - at,
                   raw.empty() ? "\"unused\":0" : "\"" + field + "\":" + raw);
  }
  return "{" + (local.empty() ? std::string("\"x\":1") : "\"local_device\":" + local) + ",\"remote_device\":{" +
         remote + "}}";
}

struct Lists {
  SerialDeviceConfigList list;
  ~Lists() { clear_serial_devices_config(list); }
};

TEST(SerialDeviceConfig, ValidItemsAreReadInOrderAndLogged) {
  LogCaptureScope log;
  Lists l;
  const std::string second =
      "{\"local_device\":\"/dev/ttyB\",\"remote_device\":{\"ip\":\"10.0.0.3\",\"device\":\"/dev/ttyUSB0\","
      "\"baud_rate\":-5,\"data_bit\":5,\"stop_bit\":2,\"parity\":\"E\",\"flow_control\":1},\"extra\":true}";
  ASSERT_EQ(deal_serial_devices_config("[" + item() + "," + second + "]", l.list), 1);
  ASSERT_EQ(l.list.size(), 2u);
  // Each line prints every field of the record the list keeps a copy of.
  EXPECT_EQ(l.list.front()->local_device, "/tmp/ttyV0");
  const SerialDeviceConfig& b = *l.list.back();
  EXPECT_EQ(b.baud_rate, static_cast<uint32_t>(-5));  // any integer but -1 passes through
  EXPECT_EQ(b.flow_control, 1);
  EXPECT_EQ(log.count("deal_serial_devices_config, item[0] /tmp/ttyV0 10.0.0.2:ttyS1 9600:8:1:N:0"), 1u);
  EXPECT_EQ(log.count("deal_serial_devices_config, item[1] /dev/ttyB 10.0.0.3:/dev/ttyUSB0 -5:5:2:E:1"), 1u);
}

TEST(SerialDeviceConfig, BrokenValuesLeaveAnEmptyList) {
  LogCaptureScope log;
  Lists l;
  const std::string one = "[" + item() + "]";
  const struct {
    std::string value;
    int result;
    const char* line;
  } cases[] = {
      {"", 1, nullptr},
      {"[]", 1, nullptr},
      {"[" + item() + ",", 0, "deal_serial_devices_config, convert to json fail."},
      {item(), 0, "deal_serial_devices_config, config is not array format."},
      {"\"text\"", 0, "deal_serial_devices_config, config is not array format."},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(deal_serial_devices_config(one, l.list), 1);
    ASSERT_EQ(l.list.size(), 1u);
    log.clear();
    EXPECT_EQ(deal_serial_devices_config(c.value, l.list), c.result) << c.value;
    EXPECT_TRUE(l.list.empty()) << c.value;
    if (c.line) {
      EXPECT_EQ(log.count(c.line), 1u) << log.dump();
    } else {
      EXPECT_TRUE(log.lines().empty()) << log.dump();
    }
  }
}

TEST(SerialDeviceConfig, EachBadFieldRejectsItsItemOnly) {
  const struct {
    std::string local;
    std::string field;
    std::string raw;  // empty: member missing
    const char* key;
  } cases[] = {
      {"", "", "", "local_device"},
      {"\"\"", "", "", "local_device"},
      {"7", "", "", "local_device"},
      {"\"/tmp/a\"", "ip", "5", "remote_device.ip"},
      {"\"/tmp/a\"", "ip", "\"\"", "remote_device.ip"},
      {"\"/tmp/a\"", "device", "", "remote_device.device"},
      {"\"/tmp/a\"", "baud_rate", "\"9600\"", "remote_device.baud_rate"},
      {"\"/tmp/a\"", "baud_rate", "-1", "remote_device.baud_rate"},
      {"\"/tmp/a\"", "baud_rate", "", "remote_device.baud_rate"},
      {"\"/tmp/a\"", "data_bit", "4", "remote_device.data_bit"},
      {"\"/tmp/a\"", "data_bit", "9", "remote_device.data_bit"},
      {"\"/tmp/a\"", "stop_bit", "0", "remote_device.stop_bit"},
      {"\"/tmp/a\"", "stop_bit", "3", "remote_device.stop_bit"},
      {"\"/tmp/a\"", "parity", "\"n\"", "remote_device.parity"},
      {"\"/tmp/a\"", "parity", "\"NE\"", "remote_device.parity"},
      {"\"/tmp/a\"", "flow_control", "2", "remote_device.flow_control"},
      {"\"/tmp/a\"", "flow_control", "true", "remote_device.flow_control"},
  };
  for (const auto& c : cases) {
    LogCaptureScope log;
    Lists l;
    const std::string value = "[" + item("\"/tmp/first\"") + "," + item(c.local, c.field, c.raw) + "," +
                              item("\"/tmp/third\"") + "]";
    ASSERT_EQ(deal_serial_devices_config(value, l.list), 1) << value;
    ASSERT_EQ(l.list.size(), 2u) << value;
    EXPECT_EQ(l.list.front()->local_device, "/tmp/first");
    EXPECT_EQ(l.list.back()->local_device, "/tmp/third");
    EXPECT_EQ(log.count(std::string("deal_serial_devices_config, item[1] key[") + c.key + "] error"), 1u)
        << value << "\n" << log.dump();
    EXPECT_EQ(log.count_prefix("deal_serial_devices_config, item[1]"), 1u) << log.dump();
  }
}

}  // namespace
