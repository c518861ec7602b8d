#pragma once
// Opening a local serial port with the line settings a connect request names.

#include <cstdint>
#include <string>

#include "service/serial_frame.h"
#include "tools/tc-serial-peer/port_policy.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

// Answer code for settings the port cannot take (speed, data bits, stop bits,
// parity): EINVAL, like the other errno-valued codes.
constexpr int32_t kBadLineSettings = 22;

// The device path a request names: absolute names as they are, bare names
// ("ttyS1") under /dev.
std::string serial_line_path(const char* device);

// Opens the port non-blocking and in raw mode with the requested speed, data
// bits, stop bits, parity and RTS/CTS flow control, if `policy` allows it.
// Returns the descriptor, or -1 with `code` (an errno value, kBadLineSettings
// or kPortRefused) and `reason` set.
int open_serial_line(const TransparentChannel::ConnectRequest& request, const CPortPolicy& policy, int32_t& code,
                     std::string& reason);

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
