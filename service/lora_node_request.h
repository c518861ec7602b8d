#pragma once
// The JSON requests sent to the local LoRa node service and the reading of its
// answers: the class-C radio settings and the list of ABP nodes.

#include <json/json.h>

#include <cstdint>
#include <string>

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

constexpr const char* LORA_NODE_IP = "127.0.0.1";
constexpr uint16_t LORA_NODE_LOCAL_PORT = 16068;
constexpr uint16_t LORA_NODE_SERVER_PORT = 16058;
// Result of an answer without an integer "result".
constexpr int32_t LORA_NODE_NO_RESULT = -100;
// Nodes per "sync" or "add" request.
constexpr Json::ArrayIndex LORA_NODE_BATCH_SIZE = 100;

// {"RX2Frequency":"486900000","SF":"7","TxPower":"17"}
Json::Value default_rf_settings();
// Replaces all three settings by the strings found under "class-c" in the
// configuration value (an empty string for a missing or non-string member).
// False, leaving `settings` alone, when the value is not JSON.
bool rf_settings_from_config(const std::string& value, Json::Value& settings);

// One ABP device of the configured list, members as configured.
struct AbpNodeItem {
  std::string dev_eui;
  std::string dev_addr;
  std::string nwkskey;
  std::string appskey;
  std::string mode;
};
// Missing or non-string members read as empty.
AbpNodeItem read_abp_node_item(const Json::Value& item);
// The node object sent to the node service: every member upper-cased, the EUI
// under "devEui".
Json::Value build_abp_node(const AbpNodeItem& item);

// Compact {"method": method, member: payload}.
std::string build_node_request(const std::string& method, const std::string& member, const Json::Value& payload);
// False when the answer is not JSON; otherwise its integer "result", or
// LORA_NODE_NO_RESULT.
bool node_response_result(const std::string& response, int32_t& result);

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
