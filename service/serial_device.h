#pragma once
// One live serial device of the bridge: its local device file, its TCP link
// to the remote gateway and that link's receive state.

#include <atomic>
#include <cstdint>

#include "service/serial_device_config.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

// Connection states.  Only the service thread changes them; the status
// method reads them from the D-Bus thread.
constexpr int32_t kSerialEstablished = 0;  // data and keep-alive frames flow
constexpr int32_t kSerialIdle = -1;        // no connection, or a connect in progress
constexpr int32_t kSerialAwaiting = 1;     // connect request sent, awaiting the response
constexpr int32_t kSerialRefused = -2;     // the remote side answered a non-zero code

struct SerialDevice {
  std::atomic<int32_t> state{kSerialIdle};
  int32_t device_fd = -1;            // master side of the device file's pseudo-terminal
  int32_t socket_fd = -1;            // TCP socket to the remote gateway, -1 when none
  uint32_t recv_len = 0;             // bytes held in recv_buf
  uint8_t* recv_buf = nullptr;       // kFrameMaxSize bytes; null after an error until the next connect
  SerialDeviceConfig config;         // the configured item this device was made from
  uint64_t last_keepalive_ms = 0;    // clock of the last keep-alive or connect response
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
