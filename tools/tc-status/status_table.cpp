#include "tools/tc-status/status_table.h"

#include <cstdio>

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

const char* const kGreen = "\033[32m";
const char* const kYellow = "\033[33m";
const char* const kRed = "\033[31m";

// `text` left-aligned in `width` columns (never cut: a long path just pushes on).
std::string cell(const std::string& text, size_t width) {
  return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

std::string number(const Json::Value& value) { return std::to_string(value.asUInt64()); }

// "bytes/frames".
std::string flow(const Json::Value& item, const char* bytes, const char* frames) {
  return number(item[bytes]) + "/" + number(item[frames]);
}

}  // namespace

std::string CStatusTable::duration(uint64_t ms) {
  char text[32];
  const uint64_t s = ms / 1000;
  if (ms < 1000) {
    snprintf(text, sizeof text, "%llums", static_cast<unsigned long long>(ms));
  } else if (s < 60) {
    snprintf(text, sizeof text, "%llus", static_cast<unsigned long long>(s));
  } else if (s < 3600) {
    snprintf(text, sizeof text, "%llum%02llus", static_cast<unsigned long long>(s / 60),
             static_cast<unsigned long long>(s % 60));
  } else {
    snprintf(text, sizeof text, "%lluh%02llum", static_cast<unsigned long long>(s / 3600),
             static_cast<unsigned long long>(s / 60 % 60));
  }
  return text;
}

std::string CStatusTable::paint(const std::string& text, const char* colour) const {
  return m_colour && *colour ? colour + text + "\033[0m" : text;
}

std::string CStatusTable::render(const Json::Value& statistics) const {
  return serial_lines(statistics["serial"]) + "\n" + lora_lines(statistics["lora"]) + "\n" +
         node_line(statistics["node"]);
}

std::string CStatusTable::serial_lines(const Json::Value& links) const {
  if (!links.isArray() || links.empty()) return "serial: no devices\n";
  std::string out = cell("SERIAL DEVICE", 24) + cell("REMOTE", 28) + cell("STATE", 28) + cell("TO PEER B/FR", 15) +
                    cell("TO DEV B/FR", 15) + cell("CONN", 6) + cell("DROPS", 6) + cell("KEEPALIVE", 10) +
                    "LAST DROP\n";
  for (const Json::Value& link : links) {
    const std::string state_name = link["state"].asString();
    const std::string state = cell(state_name + " " + duration(link["state_ms"].asUInt64()), 28);
    const int64_t keepalive = link["keepalive_ms"].asInt64();
    const uint64_t drops = link["drops"].asUInt64();
    out += cell(link["local_device"].asString(), 24) +
           cell(link["ip"].asString() + ":" + link["device"].asString(), 28) +
           paint(state, state_name == "established" ? kGreen : kYellow) +
           cell(flow(link, "bytes_to_peer", "frames_to_peer"), 15) +
           cell(flow(link, "bytes_to_device", "frames_to_device"), 15) + cell(number(link["connects"]), 6) +
           paint(cell(std::to_string(drops), 6), drops > 0 ? kRed : "") +
           cell(keepalive < 0 ? "-" : duration(static_cast<uint64_t>(keepalive)) + " ago", 10) +
           link["last_drop"].asString() + "\n";
  }
  return out;
}

std::string CStatusTable::lora_lines(const Json::Value& devices) const {
  if (!devices.isArray() || devices.empty()) return "lora: no devices\n";
  std::string out = cell("LORA DEVICE", 24) + cell("DEV EUI", 18) + cell("UPLINKS", 9) + cell("REFUSED", 9) +
                    cell("DOWN QUEUED", 12) + cell("SENT", 7) + cell("DROPPED", 9) + cell("QUEUE", 7) +
                    "LAST REFUSAL\n";
  for (const Json::Value& device : devices) {
    const uint64_t refused = device["uplinks_refused"].asUInt64();
    const uint64_t dropped = device["downlinks_dropped"].asUInt64();
    out += cell(device["dev_file"].asString(), 24) + cell(device["dev_eui"].asString(), 18) +
           cell(number(device["uplinks"]), 9) + paint(cell(std::to_string(refused), 9), refused > 0 ? kYellow : "") +
           cell(number(device["downlinks_queued"]), 12) + cell(number(device["downlinks_sent"]), 7) +
           paint(cell(std::to_string(dropped), 9), dropped > 0 ? kRed : "") +
           cell(number(device["queue_depth"]), 7) + device["last_refusal"].asString() + "\n";
  }
  return out;
}

std::string CStatusTable::node_line(const Json::Value& node) const {
  std::string out = "node service:";
  for (const char* key : {"rf", "abp"}) {
    const Json::Value& outcome = node[key];
    out += std::string(" ") + key + " ";
    if (!outcome.isObject()) {
      out += "(no request yet)";
      continue;
    }
    std::string text = outcome["request"].asString();
    if (outcome.isMember("nodes")) text += " of " + number(outcome["nodes"]) + " nodes";
    const bool ok = outcome["answered"].asBool() && outcome["result"].asInt() == 0;
    text += outcome["answered"].asBool() ? ", result " + std::to_string(outcome["result"].asInt()) : ", no answer";
    out += paint(text, ok ? kGreen : kYellow) + " (" + duration(outcome["age_ms"].asUInt64()) + " ago)";
    if (key[0] == 'r') out += ";";
  }
  return out + "\n";
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
