#pragma once
// Frames of the serial bridge's TCP protocol, as plain functions over byte
// buffers: no sockets, no allocation, no logging (callers log under their own
// operation names).
//
// Header: magic 0xA5, type, then the unsigned 16-bit little-endian length of
// the whole frame, header included (4 to 1472).

#include <cstddef>
#include <cstdint>

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

struct SerialDeviceConfig;

constexpr uint8_t kFrameMagic = 0xA5;
constexpr uint8_t kFrameData = 0;                 // both ways, raw serial bytes
constexpr uint8_t kFrameKeepalive = 1;            // remote to service, payload ignored
constexpr uint8_t kFrameConnectRequest = 100;     // service to remote
constexpr uint8_t kFrameConnectResponse = 200;    // remote to service

constexpr size_t kFrameHeaderSize = 4;
constexpr size_t kFrameMaxSize = 1472;
constexpr size_t kFrameMaxPayload = kFrameMaxSize - kFrameHeaderSize;
constexpr size_t kConnectRequestSize = 272;
constexpr size_t kConnectResponseMinSize = 268;
constexpr size_t kDeviceNameSize = 256;           // zero-terminated, so 255 characters at most
constexpr size_t kResponseMessageOffset = 12;

struct FrameHeader {
  uint8_t magic;
  uint8_t type;
  uint16_t len;
};

enum class FrameCheck {
  need_more,   // fewer bytes held than the header or the frame needs
  bad_header,  // wrong magic, or a length outside 4..1472
  complete,    // a whole frame of header.len bytes starts the buffer
};

// Reads the 4 header bytes at `buf`.
FrameHeader read_frame_header(const uint8_t* buf);
// Writes a 4-byte header at `buf`.
void write_frame_header(uint8_t* buf, uint8_t type, uint16_t len);

// Looks at the first `held` bytes of a receive buffer.  `header` is filled
// whenever at least 4 bytes are held.
FrameCheck examine_frame(const uint8_t* buf, size_t held, FrameHeader& header);

// What a complete frame means on a connection.  Anything else (an empty data
// frame, data or keep-alive before the response, a second or short response,
// an unknown type) is `unexpected` and ends the connection.
enum class FrameRole { data, keepalive, response, unexpected };
FrameRole classify_frame(const FrameHeader& header, bool established, bool awaiting_response);

// Builds the 272-byte connect request for `config` into `out` (at least
// kConnectRequestSize bytes).  The device name is cut to 255 characters; every
// byte not written is zero.
void build_connect_request(const SerialDeviceConfig& config, uint8_t* out);

// The connect request's fields, as the remote side reads them.
struct ConnectRequest {
  char device[kDeviceNameSize];  // always zero-terminated
  uint32_t baud_rate;
  uint8_t data_bit;
  uint8_t stop_bit;
  char parity;
  uint8_t flow_control;
};
// False unless `frame` is a connect request of exactly 272 bytes.
bool read_connect_request(const uint8_t* frame, size_t len, ConnectRequest& out);

// Builds a connect response of 268 bytes into `out` (at least
// kConnectResponseMinSize bytes): `code`, then `message` cut to 255
// characters and zero-padded.  Returns the frame length.
size_t build_connect_response(int32_t code, const char* message, uint8_t* out);

// Reads a complete connect response of `len` (268 or more) bytes: its code,
// and its message copied into `message` (capacity `cap`, at least 1), always
// terminated.  The text is taken from at most len - 12 bytes, stops at the
// first zero byte, and never reaches past the frame, terminated or not.
// Returns the message length.
size_t read_connect_response(const uint8_t* frame, size_t len, int32_t& code, char* message, size_t cap);

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
