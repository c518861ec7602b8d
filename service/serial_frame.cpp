#include "service/serial_frame.h"

#include <cstring>

#include "service/serial_device_config.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

namespace {

// Request payload offsets.
constexpr size_t kDeviceOffset = 4;
constexpr size_t kBaudRateOffset = 260;
constexpr size_t kDataBitOffset = 264;
constexpr size_t kStopBitOffset = 265;
constexpr size_t kParityOffset = 266;
constexpr size_t kFlowControlOffset = 267;
// Response payload offsets.
constexpr size_t kCodeOffset = 4;

// The wire is little-endian whatever the host.
void put_le32(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
  at[2] = static_cast<uint8_t>(value >> 16);
  at[3] = static_cast<uint8_t>(value >> 24);
}

uint32_t get_le32(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
         static_cast<uint32_t>(at[3]) << 24;
}

// Copies at most `cap` - 1 bytes of `text` (stopping at its end) into `to`,
// which the caller zeroed beforehand.
void put_text(uint8_t* to, size_t cap, const char* text) {
  const size_t n = strnlen(text, cap - 1);
  memcpy(to, text, n);
}

}  // namespace

FrameHeader read_frame_header(const uint8_t* buf) {
  FrameHeader header;
  header.magic = buf[0];
  header.type = buf[1];
  header.len = static_cast<uint16_t>(buf[2] | buf[3] << 8);
  return header;
}

void write_frame_header(uint8_t* buf, uint8_t type, uint16_t len) {
  buf[0] = kFrameMagic;
  buf[1] = type;
  buf[2] = static_cast<uint8_t>(len);
  buf[3] = static_cast<uint8_t>(len >> 8);
}

FrameCheck examine_frame(const uint8_t* buf, size_t held, FrameHeader& header) {
  if (held < kFrameHeaderSize) return FrameCheck::need_more;
  header = read_frame_header(buf);
  if (header.magic != kFrameMagic || header.len > kFrameMaxSize || header.len < kFrameHeaderSize) {
    return FrameCheck::bad_header;
  }
  if (held < header.len) return FrameCheck::need_more;
  return FrameCheck::complete;
}

FrameRole classify_frame(const FrameHeader& header, bool established, bool awaiting_response) {
  if (established) {
    if (header.type == kFrameData && header.len > kFrameHeaderSize) return FrameRole::data;
    if (header.type == kFrameKeepalive) return FrameRole::keepalive;
  } else if (awaiting_response) {
    if (header.type == kFrameConnectResponse && header.len >= kConnectResponseMinSize) return FrameRole::response;
  }
  return FrameRole::unexpected;
}

void build_connect_request(const SerialDeviceConfig& config, uint8_t* out) {
  memset(out, 0, kConnectRequestSize);
  write_frame_header(out, kFrameConnectRequest, static_cast<uint16_t>(kConnectRequestSize));
  put_text(out + kDeviceOffset, kDeviceNameSize, config.device.c_str());
  put_le32(out + kBaudRateOffset, config.baud_rate);
  out[kDataBitOffset] = static_cast<uint8_t>(config.data_bit);
  out[kStopBitOffset] = static_cast<uint8_t>(config.stop_bit);
  out[kParityOffset] = config.parity.empty() ? 0 : static_cast<uint8_t>(config.parity[0]);
  out[kFlowControlOffset] = static_cast<uint8_t>(config.flow_control);
}

bool read_connect_request(const uint8_t* frame, size_t len, ConnectRequest& out) {
  if (len != kConnectRequestSize) return false;
  const FrameHeader header = read_frame_header(frame);
  if (header.magic != kFrameMagic || header.type != kFrameConnectRequest || header.len != kConnectRequestSize) {
    return false;
  }
  memcpy(out.device, frame + kDeviceOffset, kDeviceNameSize);
  out.device[kDeviceNameSize - 1] = '\0';
  out.baud_rate = get_le32(frame + kBaudRateOffset);
  out.data_bit = frame[kDataBitOffset];
  out.stop_bit = frame[kStopBitOffset];
  out.parity = static_cast<char>(frame[kParityOffset]);
  out.flow_control = frame[kFlowControlOffset];
  return true;
}

size_t build_connect_response(int32_t code, const char* message, uint8_t* out) {
  memset(out, 0, kConnectResponseMinSize);
  write_frame_header(out, kFrameConnectResponse, static_cast<uint16_t>(kConnectResponseMinSize));
  put_le32(out + kCodeOffset, static_cast<uint32_t>(code));
  put_text(out + kResponseMessageOffset, kConnectResponseMinSize - kResponseMessageOffset, message);
  return kConnectResponseMinSize;
}

size_t read_connect_response(const uint8_t* frame, size_t len, int32_t& code, char* message, size_t cap) {
  code = len >= kCodeOffset + 4 ? static_cast<int32_t>(get_le32(frame + kCodeOffset)) : 0;
  const size_t room = len > kResponseMessageOffset ? len - kResponseMessageOffset : 0;
  size_t n = strnlen(reinterpret_cast<const char*>(frame + kResponseMessageOffset), room);
  if (n > cap - 1) n = cap - 1;
  memcpy(message, frame + kResponseMessageOffset, n);
  message[n] = '\0';
  return n;
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
