#include "service/serial_device_config.h"

#include <json/json.h>

#include "common/json/json_text.h"
#include "common/log/log.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

using Platform::json_get_int;
using Platform::json_get_string;
using Platform::string_to_json;

bool SerialDeviceConfig::operator==(const SerialDeviceConfig& other) const {
  return local_device == other.local_device && ip == other.ip && device == other.device &&
         baud_rate == other.baud_rate && data_bit == other.data_bit && stop_bit == other.stop_bit &&
         parity == other.parity && flow_control == other.flow_control;
}

void clear_serial_devices_config(SerialDeviceConfigList& list) {
  for (SerialDeviceConfig* record : list) delete record;
  list.clear();
}

namespace {

// Fills `record` from one array item.  Returns the path of the first field
// that fails, or nullptr when the item is valid.  Missing and mistyped
// members read as "" or -1 and are rejected with the rest.
const char* read_item(const Json::Value& item, SerialDeviceConfig& record) {
  record.local_device = json_get_string(item, "local_device", "");
  if (record.local_device.empty()) return "local_device";
  record.ip = json_get_string(item, "remote_device.ip", "");
  if (record.ip.empty()) return "remote_device.ip";
  record.device = json_get_string(item, "remote_device.device", "");
  if (record.device.empty()) return "remote_device.device";
  const int32_t baud_rate = json_get_int(item, "remote_device.baud_rate", -1);
  if (baud_rate == -1) return "remote_device.baud_rate";
  record.baud_rate = static_cast<uint32_t>(baud_rate);
  const int32_t data_bit = json_get_int(item, "remote_device.data_bit", -1);
  if (data_bit < 5 || data_bit > 8) return "remote_device.data_bit";
  record.data_bit = static_cast<int8_t>(data_bit);
  const int32_t stop_bit = json_get_int(item, "remote_device.stop_bit", -1);
  if (stop_bit != 1 && stop_bit != 2) return "remote_device.stop_bit";
  record.stop_bit = static_cast<int8_t>(stop_bit);
  record.parity = json_get_string(item, "remote_device.parity", "");
  if (record.parity != "N" && record.parity != "O" && record.parity != "E") return "remote_device.parity";
  const int32_t flow_control = json_get_int(item, "remote_device.flow_control", -1);
  if (flow_control != 0 && flow_control != 1) return "remote_device.flow_control";
  record.flow_control = static_cast<int8_t>(flow_control);
  return nullptr;
}

}  // namespace

int deal_serial_devices_config(const std::string& value, SerialDeviceConfigList& list) {
  clear_serial_devices_config(list);
  if (value.empty()) return 1;

  Json::Value root;
  if (!string_to_json(value, root)) {
    TC_LOG(2, "deal_serial_devices_config, convert to json fail.");
    return 0;
  }
  if (!root.isArray()) {
    TC_LOG(2, "deal_serial_devices_config, config is not array format.");
    return 0;
  }

  for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
    SerialDeviceConfig record;
    const char* failed = read_item(root[i], record);
    if (failed) {
      TC_LOG(2, "deal_serial_devices_config, item[%d] key[%s] error", static_cast<int>(i), failed);
      continue;
    }
    TC_LOG(2, "deal_serial_devices_config, item[%d] %s %s:%s %d:%d:%d:%s:%d", static_cast<int>(i),
           record.local_device.c_str(), record.ip.c_str(), record.device.c_str(),
           static_cast<int32_t>(record.baud_rate), record.data_bit, record.stop_bit, record.parity.c_str(),
           record.flow_control);
    list.push_back(new SerialDeviceConfig(record));
  }
  return 1;
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
