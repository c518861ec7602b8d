#pragma once
// One bridged serial device as configured in "gw_tc_serial_devices", and the
// parser that validates that value item by item.

#include <cstdint>
#include <list>
#include <string>

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

struct SerialDeviceConfig {
  std::string local_device;  // path of the local device file (a link to a pty slave)
  std::string ip;            // IPv4 address of the remote gateway
  std::string device;        // serial port name on the remote gateway
  uint32_t baud_rate = 0;
  int8_t data_bit = 0;       // 5..8
  int8_t stop_bit = 0;       // 1 or 2
  std::string parity;        // "N", "O" or "E"
  int8_t flow_control = 0;   // 0 none, 1 RTS/CTS

  // Every field counts: a device whose settings changed in any way is a
  // different device, replaced rather than changed in place.
  bool operator==(const SerialDeviceConfig& other) const;
  bool operator!=(const SerialDeviceConfig& other) const { return !(*this == other); }
};

// Owned records, in the order of the JSON array.
using SerialDeviceConfigList = std::list<SerialDeviceConfig*>;

// Frees every record of `list` and empties it.
void clear_serial_devices_config(SerialDeviceConfigList& list);

// Replaces the contents of `list` by the valid items of `value`, logging each
// rejected item.  1 when `value` is empty or a JSON array (even with every
// item rejected), 0 when it is not JSON or not an array; the list is emptied
// first in every case, so a broken value leaves no device configured.
int deal_serial_devices_config(const std::string& value, SerialDeviceConfigList& list);

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
