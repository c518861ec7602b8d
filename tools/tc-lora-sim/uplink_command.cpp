#include "tools/tc-lora-sim/uplink_command.h"

#include <json/json.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "common/json/json_text.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

bool to_int(const std::string& text, int32_t& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return false;
  out = static_cast<int32_t>(value);
  return true;
}

}  // namespace

bool CUplinkCommand::parse(const std::vector<std::string>& words) {
  if (words.size() < 3 || words.size() > 4) {
    m_error = std::string("usage: ") + usage();
    return false;
  }
  m_eui = words[0];
  m_hex = words[1];
  if (!to_int(words[2], m_fport)) {
    m_error = "FPORT is not an integer: " + words[2];
    return false;
  }
  m_mtype = 2;
  if (words.size() == 4 && !to_int(words[3], m_mtype)) {
    m_error = "MTYPE is not an integer: " + words[3];
    return false;
  }
  return true;
}

std::string CUplinkCommand::datagram() const {
  Json::Value object(Json::objectValue);
  object["devEui"] = m_eui;
  object["data"] = m_hex;
  object["fport"] = m_fport;
  object["mtype"] = m_mtype;
  std::string text;
  Platform::json_to_string(object, text, false);
  return text;
}

std::string CUplinkCommand::describe() const {
  return "uplink devEui=" + m_eui + " fport=" + std::to_string(m_fport) + " mtype=" + std::to_string(m_mtype) +
         " data=" + m_hex;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
