#pragma once
// LoraLanDevice: one configured LoRa LAN device, the pairing of a local device
// file with a LoRa end device.

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

// What the bridge counted for one open device file.  Written by the loop
// only; it copies them out itself.
struct LoraLanCounters {
  uint64_t uplinks = 0;          // written into the device file
  uint64_t uplinks_refused = 0;  // for its EUI, but not written
  const char* last_refusal = nullptr;
  uint64_t downlinks_queued = 0;
  uint64_t downlinks_sent = 0;
  uint64_t downlinks_dropped = 0;  // evicted from the full queue
};

struct LoraLanDevice {
  std::string dev_file;    // path of the device file (a link to a pseudo-terminal)
  std::string dev_eui;     // upper-case hex text
  int32_t up_fport = -1;   // uplinks on this FPort only; -1 takes every FPort
  int32_t down_fport = 10; // FPort of the downlinks built from the file's data
  bool confirmed = false;  // downlinks go out as confirmed
  // Open devices only; shared with their downlinks still in the queue.
  std::shared_ptr<LoraLanCounters> counters;

  bool operator==(const LoraLanDevice& other) const {
    return dev_file == other.dev_file && dev_eui == other.dev_eui && up_fport == other.up_fport &&
           down_fport == other.down_fport && confirmed == other.confirmed;
  }
  bool operator!=(const LoraLanDevice& other) const { return !(*this == other); }
};

// The configured devices, in configuration order.
using LoraLanDeviceList = std::list<std::unique_ptr<LoraLanDevice>>;

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
