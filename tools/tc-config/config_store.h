#pragma once
// CConfigStore: the development manager's keys and values, kept in memory and
// written to a JSON object file on flush.  Not locked: the server touches it
// from its callback worker only, and main only after the server stopped.

#include <map>
#include <string>
#include <vector>

namespace Zentrova {
namespace Iot {
namespace Tools {

class CConfigStore {
 public:
  // An empty file name keeps the values in memory only.
  explicit CConfigStore(const std::string& file);

  // A missing file is an empty store.  Members that are not strings are kept
  // as their compact JSON text.  False (and `error`) when the file cannot be
  // read, is not a JSON object, or holds text that is not UTF-8.
  bool load(std::string& error);
  // Writes the file whole (through a temporary and a rename).  True at once
  // without a file.
  bool save(std::string& error);

  // A missing key reads as an empty value.
  std::string get(const std::string& key) const;
  // True when the value read for `key` changes.
  bool set(const std::string& key, const std::string& value);
  // Forgets every key; returns those whose value was not empty.
  std::vector<std::string> clear();
  // The whole store as one compact JSON object.
  std::string to_json() const;

  const std::string& file() const { return m_file; }
  bool dirty() const { return m_dirty; }

  // Keys whose values are JSON documents.
  static bool holds_json(const std::string& key);
  static bool is_json(const std::string& text);

 private:
  std::string m_file;
  std::map<std::string, std::string> m_values;
  bool m_dirty = false;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
