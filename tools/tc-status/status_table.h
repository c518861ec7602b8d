#pragma once
// CStatusTable: the service's "channel_statistics" JSON as a table a person
// reads at a glance, one line per device, colours only when asked for.

#include <json/json.h>

#include <string>

namespace Zentrova {
namespace Iot {
namespace Tools {

class CStatusTable {
 public:
  explicit CStatusTable(bool colour) : m_colour(colour) {}

  // The whole table, lines ending in '\n'; a short note for sections without devices.
  std::string render(const Json::Value& statistics) const;

  // 950 ms -> "950ms", 125000 ms -> "2m05s", 7200000 ms -> "2h00m".
  static std::string duration(uint64_t ms);

 private:
  std::string paint(const std::string& text, const char* colour) const;
  std::string serial_lines(const Json::Value& links) const;
  std::string lora_lines(const Json::Value& devices) const;
  std::string node_line(const Json::Value& node) const;

  bool m_colour;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
