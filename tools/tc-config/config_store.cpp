#include "tools/tc-config/config_store.h"

#include <dbus/dbus.h>
#include <stdio.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/json/json_text.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

using Platform::json_to_string;
using Platform::string_to_json;

CConfigStore::CConfigStore(const std::string& file) : m_file(file) {}

bool CConfigStore::holds_json(const std::string& key) {
  return key == "gw_tc_serial_devices" || key == "gw_tc_loralan_devices" || key == "gw_tc_loralan_rf";
}

bool CConfigStore::is_json(const std::string& text) {
  Json::Value ignored;
  return string_to_json(text, ignored);
}

bool CConfigStore::load(std::string& error) {
  if (m_file.empty()) return true;
  std::ifstream in(m_file);
  if (!in) {
    if (errno == ENOENT) return true;
    error = "cannot read " + m_file + ": " + std::strerror(errno);
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  Json::Value root;
  if (!string_to_json(text.str(), root) || !root.isObject()) {
    error = m_file + " is not a JSON object";
    return false;
  }
  std::map<std::string, std::string> values;
  for (const auto& key : root.getMemberNames()) {
    const Json::Value& member = root[key];
    std::string value;
    if (member.isString()) {
      value = member.asString();
    } else {
      json_to_string(member, value, false);
    }
    // Values travel as bus strings, which must be UTF-8.
    if (!dbus_validate_utf8(key.c_str(), nullptr) || !dbus_validate_utf8(value.c_str(), nullptr)) {
      error = m_file + ": the value of \"" + key + "\" is not UTF-8 text";
      return false;
    }
    values[key] = value;
  }
  m_values.swap(values);
  m_dirty = false;
  return true;
}

bool CConfigStore::save(std::string& error) {
  if (m_file.empty()) return true;
  Json::Value root(Json::objectValue);
  for (const auto& entry : m_values) root[entry.first] = entry.second;
  std::string text;
  json_to_string(root, text, true);
  const std::string temporary = m_file + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << text << '\n';
    out.flush();
    if (!out) {
      error = "cannot write " + temporary + ": " + std::strerror(errno);
      return false;
    }
  }
  if (rename(temporary.c_str(), m_file.c_str()) != 0) {
    error = "cannot replace " + m_file + ": " + std::strerror(errno);
    remove(temporary.c_str());
    return false;
  }
  m_dirty = false;
  return true;
}

std::string CConfigStore::get(const std::string& key) const {
  auto it = m_values.find(key);
  return it == m_values.end() ? "" : it->second;
}

bool CConfigStore::set(const std::string& key, const std::string& value) {
  auto it = m_values.find(key);
  const bool changed = (it == m_values.end() ? std::string() : it->second) != value;
  if (it == m_values.end() || changed) {
    m_values[key] = value;
    m_dirty = true;
  }
  return changed;
}

std::vector<std::string> CConfigStore::clear() {
  std::vector<std::string> emptied;
  for (const auto& entry : m_values) {
    if (!entry.second.empty()) emptied.push_back(entry.first);
  }
  if (!m_values.empty()) m_dirty = true;
  m_values.clear();
  return emptied;
}

std::string CConfigStore::to_json() const {
  Json::Value root(Json::objectValue);
  for (const auto& entry : m_values) root[entry.first] = entry.second;
  std::string text;
  json_to_string(root, text, false);
  return text;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
