#include "tools/tc-lora-sim/node_service_sim.h"

#include <json/json.h>

#include "common/json/json_text.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

// A member in JSON text ("17", "", 17), "-" when missing.
std::string member(const Json::Value& object, const char* name) {
  if (!object.isObject() || !object.isMember(name)) return "-";
  std::string text;
  Platform::json_to_string(object[name], text, false);
  return text;
}

}  // namespace

std::string CNodeServiceSim::describe(const std::string& request) {
  Json::Value root;
  if (!Platform::string_to_json(request, root) || !root.isObject()) return "node (not a JSON object) " + request;
  const std::string method = root["method"].isString() ? root["method"].asString() : member(root, "method");
  if (method == "set_rf") {
    const Json::Value& rf = root["class-c"];
    return "node set_rf RX2Frequency=" + member(rf, "RX2Frequency") + " TxPower=" + member(rf, "TxPower") +
           " SF=" + member(rf, "SF");
  }
  const Json::Value& nodes = root["loranode"];
  if ((method == "sync" || method == "add") && nodes.isArray()) {
    std::string line = "node " + method + " count=" + std::to_string(nodes.size()) + " devEui=";
    for (Json::ArrayIndex i = 0; i < nodes.size(); ++i) {
      if (i > 0) line += ",";
      line += nodes[i].isObject() && nodes[i]["devEui"].isString() ? nodes[i]["devEui"].asString() : "?";
    }
    return line;
  }
  std::string compact;
  Platform::json_to_string(root, compact, false);
  return "node " + method + " " + compact;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
