// The configuration values' parsers, each fed the same text (the input):
//   - the serial device list, as "gw_tc_serial_devices" is read;
//   - the LoRa device list, as the LoRa LAN bridge reads
//     "gw_tc_loralan_devices";
//   - the RF value and the ABP node list, as the node provisioning reads
//     "gw_tc_loralan_rf" and "gw_tc_loralan_devices".  Its socket is never
//     opened, so both stop at their first send (the RF request is built by
//     then); the node items are then read and built here as it would.
//
// Besides the sanitizers: every accepted serial item must survive the
// connect request round trip, and every accepted LoRa device carries a file
// and an upper-case EUI.

#include <cstdint>
#include <cstring>
#include <string>

#include "common/json/json_text.h"
#include "fuzz/fuzz_check.h"
#include "service/common.h"
#include "service/lora_lan.h"
#include "service/lora_node.h"
#include "service/lora_node_request.h"
#include "service/serial_device_config.h"
#include "service/serial_frame.h"

using namespace Zentrova::Iot::TransparentChannel;
using Zentrova::Iot::Platform::string_to_json;

namespace {

void serial_devices(const std::string& value) {
  SerialDeviceConfigList list;
  deal_serial_devices_config(value, list);
  for (const SerialDeviceConfig* record : list) {
    uint8_t frame[kConnectRequestSize];
    build_connect_request(*record, frame);
    ConnectRequest request{};
    check(read_connect_request(frame, sizeof frame, request), "connect request unreadable");
    // The name goes out cut at 255 characters or at a zero byte.
    const char* name = record->device.c_str();
    check(std::string(name, strnlen(name, kDeviceNameSize - 1)) == request.device,
          "device name differs in the connect request");
    check(request.baud_rate == record->baud_rate, "baud rate differs in the connect request");
    check(request.data_bit == record->data_bit && request.stop_bit == record->stop_bit &&
              request.parity == record->parity[0] && request.flow_control == record->flow_control,
          "line settings differ in the connect request");
  }
  clear_serial_devices_config(list);
}

void lora_devices(CLoraLan& lan, const std::string& value) {
  LoraLanDeviceList devices;
  lan.deal_device_change_config(value, devices);
  for (const auto& device : devices) {
    check(!device->dev_file.empty() && !device->dev_eui.empty(), "LoRa device without file or EUI");
    check(device->dev_eui == to_upper(device->dev_eui), "EUI not upper-cased");
  }
}

void node_items(const std::string& value) {
  Json::Value items;
  if (!string_to_json(value, items) || !items.isArray()) return;
  for (const Json::Value& item : items) build_abp_node(read_abp_node_item(item));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_quiet_log();
  // Neither uses its configuration agent in the calls below.
  static CLoraLan* lan = new CLoraLan(nullptr);
  static CLoraNode* node = new CLoraNode(nullptr);
  const std::string value(reinterpret_cast<const char*>(data), size);

  serial_devices(value);
  lora_devices(*lan, value);
  check(!node->deal_rf_change_config(value), "RF settings sent without a socket");
  check(!node->deal_node_change_config(value), "node list sent without a socket");
  node_items(value);
  return 0;
}
