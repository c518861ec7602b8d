// The serial bridge's frames over plain byte buffers, and the validation of
// "gw_tc_serial_devices" item by item.

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "service/serial_device_config.h"
#include "service/serial_frame.h"
#include "tests/support/log_capture.h"

using namespace Zentrova::Iot::TransparentChannel;

namespace {

using Bytes = std::vector<uint8_t>;

TEST(SerialFrame, ConnectRequestLayout) {
  SerialDeviceConfig c;
  c.device = std::string(300, 'd');
  c.baud_rate = 115200;
  c.data_bit = 7;
  c.stop_bit = 2;
  c.parity = "E";
  c.flow_control = 1;
  Bytes req(kConnectRequestSize + 2, 0xEE);  // guard bytes stay untouched
  build_connect_request(c, req.data());
  EXPECT_EQ(Bytes(req.begin(), req.begin() + 4), (Bytes{0xA5, 100, 0x10, 0x01}));  // len 272
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&req[4])), std::string(255, 'd'));
  const Bytes tail{0, 0x00, 0xC2, 0x01, 0x00, 7, 2, 'E', 1, 0, 0, 0, 0, 0xEE, 0xEE};  // baud 115200, 7E2, RTS/CTS
  EXPECT_EQ(Bytes(req.begin() + 259, req.end()), tail);

  c.device = "ttyS1";
  build_connect_request(c, req.data());
  EXPECT_EQ(Bytes(req.begin() + 9, req.begin() + 260), Bytes(251, 0));  // no trace of the longer name
}

TEST(SerialFrame, HeaderChecksAndRoles) {
  FrameHeader h{};
  const Bytes data{0xA5, 0, 7, 0, 'a', 'b', 'c'};
  for (size_t held = 0; held < data.size(); ++held) {
    EXPECT_EQ(examine_frame(data.data(), held, h), FrameCheck::need_more);
  }
  EXPECT_EQ(examine_frame(data.data(), data.size(), h), FrameCheck::complete);
  EXPECT_EQ(h.len, 7);
  const std::pair<Bytes, FrameCheck> headers[] = {
      {{0xA4, 0, 8, 0}, FrameCheck::bad_header},       {{0xA5, 0, 3, 0}, FrameCheck::bad_header},
      {{0xA5, 0, 0xC1, 0x05}, FrameCheck::bad_header},  // 1473
      {{0xA5, 1, 4, 0}, FrameCheck::complete},          {{0xA5, 0, 0xC0, 0x05}, FrameCheck::need_more},  // 1472
  };
  for (const auto& [header, check] : headers) EXPECT_EQ(examine_frame(header.data(), 4, h), check) << int(header[2]);

  const std::tuple<uint8_t, uint16_t, bool, bool, FrameRole> roles[] = {  // type, len, established, awaiting: role
      {kFrameData, 1472, true, false, FrameRole::data},
      {kFrameKeepalive, 40, true, false, FrameRole::keepalive},
      {kFrameData, 4, true, false, FrameRole::unexpected},  // empty data
      {kFrameConnectRequest, 272, true, false, FrameRole::unexpected},
      {7, 10, true, false, FrameRole::unexpected},
      {kFrameConnectResponse, 267, false, true, FrameRole::unexpected},  // short response
      {kFrameKeepalive, 4, false, true, FrameRole::unexpected},          // before the response
      {kFrameConnectResponse, 268, false, false, FrameRole::unexpected},  // nothing was asked
  };
  for (const auto& [type, len, established, awaiting, role] : roles) {
    EXPECT_EQ(classify_frame(FrameHeader{kFrameMagic, type, len}, established, awaiting), role) << int(type) << " " << len;
  }
}

// The frame is followed by more text: none of it may join the message.
TEST(SerialFrame, ResponseTextStopsAtTheFrameEndAndTheCallersRoom) {
  Bytes r(400, 'u');
  write_frame_header(r.data(), kFrameConnectResponse, 300);
  char message[400];
  int32_t code = 0;
  EXPECT_EQ(read_connect_response(r.data(), 300, code, message, sizeof message), 288u);
  EXPECT_EQ(read_connect_response(r.data(), 300, code, message, 3), 2u);
  EXPECT_STREQ(message, "uu");
}

// One item with every field valid; `member` replaced by `raw` JSON (or left out when empty).
std::string item(const std::string& local = "\"/tmp/a\"", const std::string& member = "", const std::string& raw = "") {
  std::string remote = "\"ip\":\"10.0.0.2\",\"device\":\"ttyS1\",\"baud_rate\":9600,\"data_bit\":8,"
                       "\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":0";
  const size_t at = member.empty() ? std::string::npos : remote.find("\"" + member + "\":");
  if (at != std::string::npos) {
    const size_t end = remote.find(',', at);
    remote.replace(at, (end == std::string::npos ? remote.size() : end) - at,
                   raw.empty() ? "\"x\":0" : "\"" + member + "\":" + raw);
  }
  const std::string head = local.empty() ? std::string("\"x\":1") : "\"local_device\":" + local;
  return "{" + head + ",\"remote_device\":{" + remote + "}}";
}

TEST(SerialDeviceConfig, ValidItemsAreReadInOrderAndBrokenValuesLeaveAnEmptyList) {
  tc_test::LogCaptureScope log;
  SerialDeviceConfigList list;
  const std::string second = "{\"local_device\":\"/dev/ttyB\",\"remote_device\":{\"ip\":\"10.0.0.3\",\"device\":"
                             "\"/dev/ttyUSB0\",\"baud_rate\":-5,\"data_bit\":5,\"stop_bit\":2,\"parity\":\"E\","
                             "\"flow_control\":1},\"extra\":true}";
  const std::string both = "[" + item() + "," + second + "]";
  ASSERT_EQ(deal_serial_devices_config(both, list), 1);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list.front()->local_device, "/tmp/a");
  EXPECT_EQ(log.count("deal_serial_devices_config, item[0] /tmp/a 10.0.0.2:ttyS1 9600:8:1:N:0"), 1u);
  EXPECT_EQ(log.count("deal_serial_devices_config, item[1] /dev/ttyB 10.0.0.3:/dev/ttyUSB0 -5:5:2:E:1"), 1u);

  const std::pair<std::string, int> broken[] = {{"", 1}, {"[]", 1}, {"[" + item() + ",", 0}, {item(), 0}, {"\"t\"", 0}};
  for (const auto& [value, result] : broken) {
    ASSERT_EQ(deal_serial_devices_config(both, list), 1);
    EXPECT_EQ(deal_serial_devices_config(value, list), result) << value;
    EXPECT_TRUE(list.empty()) << value;
  }
  EXPECT_EQ(log.count("deal_serial_devices_config, convert to json fail."), 1u);
  EXPECT_EQ(log.count("deal_serial_devices_config, config is not array format."), 2u);
  clear_serial_devices_config(list);
}

TEST(SerialDeviceConfig, EachBadFieldRejectsItsItemOnly) {
  const std::string b = "\"/tmp/b\"";
  const std::vector<std::vector<std::string>> cases = {  // local_device, member of remote_device, its raw JSON
      {"", "", ""}, {"\"\"", "", ""}, {"7", "", ""}, {b, "ip", "\"\""}, {b, "device", ""},
      {b, "baud_rate", "\"9600\""}, {b, "baud_rate", "-1"}, {b, "data_bit", "4"}, {b, "data_bit", "9"},
      {b, "stop_bit", "0"}, {b, "stop_bit", "3"}, {b, "parity", "\"n\""}, {b, "parity", "\"NE\""},
      {b, "flow_control", "2"}, {b, "flow_control", "true"},
  };
  for (const auto& c : cases) {
    tc_test::LogCaptureScope log;
    SerialDeviceConfigList list;
    const std::string value = "[" + item() + "," + item(c[0], c[1], c[2]) + "," + item("\"/tmp/c\"") + "]";
    ASSERT_EQ(deal_serial_devices_config(value, list), 1) << value;
    EXPECT_EQ(list.size() == 2 ? list.front()->local_device + list.back()->local_device : "", "/tmp/a/tmp/c") << value;
    const std::string key = c[1].empty() ? "local_device" : "remote_device." + c[1];
    EXPECT_EQ(log.count("deal_serial_devices_config, item[1] key[" + key + "] error"), 1u) << value << log.dump();
    EXPECT_EQ(log.count_prefix("deal_serial_devices_config, item[1]"), 1u) << log.dump();
    clear_serial_devices_config(list);
  }
}

}  // namespace
