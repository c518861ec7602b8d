// The serial bridge's frames over plain byte buffers.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "service/serial_device_config.h"
#include "service/serial_frame.h"

using namespace Zentrova::Iot::TransparentChannel;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes frame(uint8_t type, const std::string& payload) {
  Bytes f(kFrameHeaderSize + payload.size());
  write_frame_header(f.data(), type, static_cast<uint16_t>(f.size()));
  memcpy(f.data() + kFrameHeaderSize, payload.data(), payload.size());
  return f;
}

Bytes response(int32_t code, const std::string& message, size_t len) {
  Bytes f(len, 0);
  build_connect_response(code, "", f.data());
  write_frame_header(f.data(), kFrameConnectResponse, static_cast<uint16_t>(len));
  memcpy(f.data() + kResponseMessageOffset, message.data(), message.size());
  return f;
}

SerialDeviceConfig config(const std::string& device) {
  SerialDeviceConfig c;
  c.local_device = "/tmp/ttyV0";
  c.ip = "10.0.0.2";
  c.device = device;
  c.baud_rate = 0x0001C200;  // 115200
  c.data_bit = 7;
  c.stop_bit = 2;
  c.parity = "E";
  c.flow_control = 1;
  return c;
}

TEST(SerialFrame, ConnectRequestLayout) {
  Bytes req(kConnectRequestSize + 8, 0xEE);  // guard bytes must stay untouched
  build_connect_request(config(std::string(300, 'd')), req.data());
  EXPECT_EQ(Bytes(req.begin(), req.begin() + 4), (Bytes{0xA5, 100, 0x10, 0x01}));  // len 272
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&req[4])), std::string(255, 'd'));
  EXPECT_EQ(req[259], 0);
  EXPECT_EQ(Bytes(req.begin() + 260, req.begin() + 268), (Bytes{0x00, 0xC2, 0x01, 0x00, 7, 2, 'E', 1}));
  EXPECT_EQ(Bytes(req.begin() + 268, req.begin() + 272), (Bytes{0, 0, 0, 0}));
  EXPECT_EQ(Bytes(req.begin() + 272, req.end()), Bytes(8, 0xEE));

  build_connect_request(config("ttyS1"), req.data());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&req[4])), "ttyS1");
  EXPECT_EQ(Bytes(req.begin() + 9, req.begin() + 260), Bytes(251, 0));  // no trace of the longer name

  ConnectRequest parsed{};
  ASSERT_TRUE(read_connect_request(req.data(), kConnectRequestSize, parsed));
  EXPECT_STREQ(parsed.device, "ttyS1");
  EXPECT_EQ(parsed.baud_rate, 115200u);
  EXPECT_EQ(parsed.data_bit, 7);
  EXPECT_EQ(parsed.stop_bit, 2);
  EXPECT_EQ(parsed.parity, 'E');
  EXPECT_EQ(parsed.flow_control, 1);
  EXPECT_FALSE(read_connect_request(req.data(), kConnectRequestSize - 1, parsed));
  req[1] = kFrameData;
  EXPECT_FALSE(read_connect_request(req.data(), kConnectRequestSize, parsed));
}

TEST(SerialFrame, HeaderChecks) {
  FrameHeader h{};
  const Bytes data = frame(kFrameData, "abc");
  for (size_t held = 0; held < data.size(); ++held) {
    EXPECT_EQ(examine_frame(data.data(), held, h), FrameCheck::need_more) << held;
  }
  EXPECT_EQ(examine_frame(data.data(), data.size(), h), FrameCheck::complete);
  EXPECT_EQ(h.type, kFrameData);
  EXPECT_EQ(h.len, 7);

  const struct {
    Bytes header;
    FrameCheck check;
  } cases[] = {
      {{0xA4, 0, 8, 0}, FrameCheck::bad_header},     {{0xA5, 0, 3, 0}, FrameCheck::bad_header},
      {{0xA5, 0, 0xC1, 0x05}, FrameCheck::bad_header},  // 1473
      {{0xA5, 0, 0, 0}, FrameCheck::bad_header},     {{0xA5, 1, 4, 0}, FrameCheck::complete},
      {{0xA5, 0, 0xC0, 0x05}, FrameCheck::need_more},  // 1472 announced, 4 held
  };
  for (const auto& c : cases) EXPECT_EQ(examine_frame(c.header.data(), 4, h), c.check) << int(c.header[2]);
  EXPECT_EQ(h.len, 1472);
}

TEST(SerialFrame, RoleDependsOnTheConnectionState) {
  const auto role = [](uint8_t type, uint16_t len, bool established, bool awaiting) {
    return classify_frame(FrameHeader{kFrameMagic, type, len}, established, awaiting);
  };
  EXPECT_EQ(role(kFrameData, 5, true, false), FrameRole::data);
  EXPECT_EQ(role(kFrameData, 1472, true, false), FrameRole::data);
  EXPECT_EQ(role(kFrameKeepalive, 4, true, false), FrameRole::keepalive);
  EXPECT_EQ(role(kFrameKeepalive, 40, true, false), FrameRole::keepalive);
  EXPECT_EQ(role(kFrameConnectResponse, 268, false, true), FrameRole::response);
  EXPECT_EQ(role(kFrameConnectResponse, 300, false, true), FrameRole::response);

  EXPECT_EQ(role(kFrameData, 4, true, false), FrameRole::unexpected);               // empty data
  EXPECT_EQ(role(kFrameConnectResponse, 268, true, false), FrameRole::unexpected);  // second response
  EXPECT_EQ(role(kFrameConnectRequest, 272, true, false), FrameRole::unexpected);
  EXPECT_EQ(role(7, 10, true, false), FrameRole::unexpected);
  EXPECT_EQ(role(kFrameConnectResponse, 267, false, true), FrameRole::unexpected);  // short response
  EXPECT_EQ(role(kFrameData, 10, false, true), FrameRole::unexpected);              // data before the response
  EXPECT_EQ(role(kFrameKeepalive, 4, false, true), FrameRole::unexpected);
  EXPECT_EQ(role(kFrameConnectResponse, 268, false, false), FrameRole::unexpected);  // nothing was asked
}

TEST(SerialFrame, ResponseMessageStaysInsideTheFrame) {
  char message[2000];
  int32_t code = 0;
  Bytes r(kConnectResponseMinSize);
  EXPECT_EQ(build_connect_response(-2, std::string(400, 'm').c_str(), r.data()), 268u);
  EXPECT_EQ(Bytes(r.begin(), r.begin() + 4), (Bytes{0xA5, 200, 0x0C, 0x01}));
  EXPECT_EQ(read_connect_response(r.data(), r.size(), code, message, sizeof message), 255u);
  EXPECT_EQ(code, -2);

  // Exactly sized heap copies: reading one byte too far is an ASan error.
  for (size_t len : {268u, 300u, 1472u}) {
    const Bytes unterminated = response(0, std::string(len - 12, 'u'), len);
    const Bytes exact(unterminated);
    EXPECT_EQ(read_connect_response(exact.data(), len, code, message, sizeof message), len - 12);
    EXPECT_EQ(std::string(message), std::string(len - 12, 'u'));
    EXPECT_EQ(code, 0);
  }
  const Bytes shortText = response(5, "busy", 300);
  EXPECT_EQ(read_connect_response(shortText.data(), 300, code, message, sizeof message), 4u);
  EXPECT_STREQ(message, "busy");
  EXPECT_EQ(code, 5);
  EXPECT_EQ(read_connect_response(shortText.data(), 300, code, message, 3), 2u);  // the caller's room
  EXPECT_STREQ(message, "bu");
}

}  // namespace
