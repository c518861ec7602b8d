// What the LoRa LAN bridge does with one datagram from the server: sort it
// (result, uplink or refusal), then for an uplink decode it as the bridge
// does (EUI upper-cased, hex payload to bytes).  The input is the datagram,
// cut like the bridge's read cuts it.
//
// Besides the sanitizers: the hex helpers must invert each other on any
// bytes, a decoded uplink's payload must come back from the downlink built
// with it, and an accepted uplink must hold what the refusals rule out.
// The node service's answers are read by another parser of the same kind,
// fed the same text.

#include <cstdint>
#include <string>

#include "common/json/json_text.h"
#include "fuzz/fuzz_check.h"
#include "service/common.h"
#include "service/lora_lan_message.h"
#include "service/lora_node_request.h"

using namespace Zentrova::Iot::TransparentChannel;
using Zentrova::Iot::Platform::json_get_string;
using Zentrova::Iot::Platform::string_to_json;

namespace {

void check_uplink(const LoraLanDatagram& d) {
  check(!d.dev_eui.empty() && !d.data.empty(), "uplink without EUI or data");
  check(d.mtype == 2 || d.mtype == 4, "uplink of another message type");
  check(d.fport >= 1 && d.fport <= 223, "uplink on a reserved FPort");

  // (The hex helpers themselves, on any text, are checked below.)
  const std::string eui = to_upper(d.dev_eui);
  std::string payload;
  hex_to_bytes(d.data, payload);

  // Writing the decoded bytes back to the server must give their hex text.
  const std::string downlink = build_lora_lan_downlink(payload, eui, d.fport, d.mtype == 4);
  Json::Value root;
  check(string_to_json(downlink, root), "downlink is not JSON");
  std::string hex;
  bytes_to_hex(payload, hex);
  check(json_get_string(root, "data", "") == hex, "downlink data differs");
  check(json_get_string(root, "fPort", "") == std::to_string(d.fport), "downlink fPort differs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_quiet_log();
  if (size > static_cast<size_t>(LORA_LAN_MAX_DATAGRAM)) size = LORA_LAN_MAX_DATAGRAM;
  const std::string text(reinterpret_cast<const char*>(data), size);

  const LoraLanDatagram d = parse_lora_lan_datagram(text);
  if (d.kind == LoraLanDatagramKind::uplink) check_uplink(d);
  if (d.kind == LoraLanDatagramKind::result) check(d.result != LORA_LAN_NO_RESULT, "result without a result");

  // Hex decoding of text that is not hex at all, and the round trip on any bytes.
  std::string bytes, hex, back;
  hex_to_bytes(text, bytes);
  check(bytes.size() == text.size() / 2, "hex_to_bytes: wrong length");
  bytes_to_hex(text, hex);
  check(hex.size() == 2 * text.size(), "bytes_to_hex: wrong length");
  hex_to_bytes(hex, back);
  check(back == text, "hex_to_bytes does not invert bytes_to_hex");

  int32_t result = LORA_NODE_NO_RESULT;
  node_response_result(text, result);
  return 0;
}
