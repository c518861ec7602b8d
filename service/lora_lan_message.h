#pragma once
// The JSON datagrams exchanged with the local LoRa LAN server: reading what
// the server sends (uplinks and results of downlinks) and writing downlinks.

#include <cstdint>
#include <string>

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

constexpr const char* LORA_LAN_IP = "127.0.0.1";
// The bridge's own socket: it sends every downlink and receives everything
// the server sends.
constexpr uint16_t LORA_LAN_LOCAL_PORT = 18099;
constexpr uint16_t LORA_LAN_SERVER_PORT = 18098;
// Longer datagrams are cut to this size by the read.
constexpr int32_t LORA_LAN_MAX_DATAGRAM = 1500;

enum class LoraLanDatagramKind {
  not_json,        // dropped without a word
  result,          // the server's answer to a downlink
  uplink,          // passed every check
  missing_member,  // devEui, data, mtype or fport missing or of another type
  bad_mtype,       // neither unconfirmed (2) nor confirmed (4) data up
  bad_fport,       // outside 1..223
};

struct LoraLanDatagram {
  LoraLanDatagramKind kind = LoraLanDatagramKind::not_json;
  int32_t result = 0;     // result datagrams
  std::string dev_eui;    // as received, either case
  std::string data;       // payload as received, hex text
  int32_t mtype = -1;
  int32_t fport = -1;     // set for every JSON datagram without a result
};

// Marker for an absent "result": a server result of exactly this value is
// therefore taken for an uplink.
constexpr int32_t LORA_LAN_NO_RESULT = 84215045;

// Sorts one received datagram into result, uplink or one of the refusals.
LoraLanDatagram parse_lora_lan_datagram(const std::string& text);

// Compact downlink text; every member is a string and "fcntd" is always "361":
// {"confirmed":"false","data":"00ff","devEUI":"00AA11BB22CC33DD","fPort":"10","fcntd":"361"}
std::string build_lora_lan_downlink(const std::string& payload, const std::string& dev_eui, int32_t down_fport,
                                    bool confirmed);

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
