#include "service/lora_lan_message.h"

#include <json/json.h>

#include "common/json/json_text.h"
#include "service/common.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

using Platform::json_get_int;
using Platform::json_get_string;

LoraLanDatagram parse_lora_lan_datagram(const std::string& text) {
  LoraLanDatagram d;
  Json::Value root;
  if (!Platform::string_to_json(text, root)) return d;

  // Anything with an integer "result" is an answer, whatever else it holds.
  d.result = json_get_int(root, "result", LORA_LAN_NO_RESULT);
  if (d.result != LORA_LAN_NO_RESULT) {
    d.kind = LoraLanDatagramKind::result;
    return d;
  }

  d.dev_eui = json_get_string(root, "devEui", "");
  d.data = json_get_string(root, "data", "");
  d.mtype = json_get_int(root, "mtype", -1);
  d.fport = json_get_int(root, "fport", -1);
  if (d.dev_eui.empty() || d.data.empty() || d.mtype == -1 || d.fport == -1) {
    d.kind = LoraLanDatagramKind::missing_member;
  } else if (d.mtype != 2 && d.mtype != 4) {
    d.kind = LoraLanDatagramKind::bad_mtype;
  } else if (d.fport < 1 || d.fport > 223) {
    d.kind = LoraLanDatagramKind::bad_fport;
  } else {
    d.kind = LoraLanDatagramKind::uplink;
  }
  return d;
}

std::string build_lora_lan_downlink(const std::string& payload, const std::string& dev_eui, int32_t down_fport,
                                    bool confirmed) {
  std::string hex;
  bytes_to_hex(payload, hex);
  // The server reads every member as text, "fPort" and "confirmed" included.
  Json::Value object(Json::objectValue);
  object["devEUI"] = dev_eui;
  object["data"] = hex;
  object["fPort"] = std::to_string(down_fport);
  object["confirmed"] = confirmed ? "true" : "false";
  object["fcntd"] = "361";
  std::string text;
  Platform::json_to_string(object, text, false);
  return text;
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
