#include "tools/tc-lora-sim/lan_server_sim.h"

#include <json/json.h>

#include <cstdio>

#include "common/json/json_text.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The payload as quoted text, non-printable bytes as \xNN; false when the hex
// text is not whole bytes of valid digits.
bool readable_payload(const std::string& hex, std::string& out) {
  if (hex.size() % 2 != 0) return false;
  out = "\"";
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int high = hex_value(hex[i]);
    const int low = hex_value(hex[i + 1]);
    if (high < 0 || low < 0) return false;
    const int byte = high * 16 + low;
    if (byte >= 0x20 && byte < 0x7F && byte != '"' && byte != '\\') {
      out.push_back(static_cast<char>(byte));
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      out += escaped;
    }
  }
  out += "\"";
  return true;
}

// A member as the bridge sent it: strings quoted, anything else in JSON text,
// "-" when missing.
std::string member(const Json::Value& root, const char* name) {
  if (!root.isMember(name)) return "-";
  std::string text;
  Platform::json_to_string(root[name], text, false);
  return text;
}

}  // namespace

std::string CLanServerSim::describe(const std::string& datagram) {
  Json::Value root;
  if (!Platform::string_to_json(datagram, root) || !root.isObject()) return "downlink (not a JSON object) " + datagram;
  std::string line = "downlink devEUI=" + member(root, "devEUI") + " fPort=" + member(root, "fPort") +
                     " confirmed=" + member(root, "confirmed") + " fcntd=" + member(root, "fcntd") +
                     " data=" + member(root, "data");
  const Json::Value& data = root["data"];
  std::string text;
  if (data.isString() && readable_payload(data.asString(), text)) {
    const size_t bytes = data.asString().size() / 2;
    line += " (" + std::to_string(bytes) + (bytes == 1 ? " byte " : " bytes ") + text + ")";
  }
  return line;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
