#include "service/lora_node_request.h"

#include "common/json/json_text.h"
#include "service/common.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

using Platform::json_get_string;

Json::Value default_rf_settings() {
  Json::Value settings(Json::objectValue);
  settings["RX2Frequency"] = "486900000";
  settings["TxPower"] = "17";
  settings["SF"] = "7";
  return settings;
}

bool rf_settings_from_config(const std::string& value, Json::Value& settings) {
  Json::Value root;
  if (!Platform::string_to_json(value, root)) return false;
  // The defaults are for an empty value only: a value that misses a member
  // sends it empty.
  settings["RX2Frequency"] = json_get_string(root, "class-c.RX2Frequency", "");
  settings["TxPower"] = json_get_string(root, "class-c.TxPower", "");
  settings["SF"] = json_get_string(root, "class-c.SF", "");
  return true;
}

AbpNodeItem read_abp_node_item(const Json::Value& item) {
  AbpNodeItem node;
  node.dev_eui = json_get_string(item, "devEUI", "");
  node.dev_addr = json_get_string(item, "devAddr", "");
  node.nwkskey = json_get_string(item, "nwkskey", "");
  node.appskey = json_get_string(item, "appskey", "");
  node.mode = json_get_string(item, "mode", "");
  return node;
}

Json::Value build_abp_node(const AbpNodeItem& item) {
  Json::Value node(Json::objectValue);
  node["devEui"] = to_upper(item.dev_eui);
  node["devAddr"] = to_upper(item.dev_addr);
  node["nwkskey"] = to_upper(item.nwkskey);
  node["appskey"] = to_upper(item.appskey);
  node["mode"] = to_upper(item.mode);
  return node;
}

std::string build_node_request(const std::string& method, const std::string& member, const Json::Value& payload) {
  Json::Value request(Json::objectValue);
  request["method"] = method;
  request[member] = payload;
  std::string text;
  Platform::json_to_string(request, text, false);
  return text;
}

bool node_response_result(const std::string& response, int32_t& result) {
  Json::Value root;
  if (!Platform::string_to_json(response, root)) return false;
  result = Platform::json_get_int(root, "result", LORA_NODE_NO_RESULT);
  return true;
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
