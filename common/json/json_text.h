#pragma once
// JSON text helpers over jsoncpp: parse and print text, and read typed members
// by dotted path ("remote_device.ip", "class-c.SF") with a fallback.

#include <json/json.h>

#include <cstdint>
#include <string>

namespace Zentrova {
namespace Iot {
namespace Platform {

// False (and `out` null) when `text` is not JSON.  Never throws, whatever the input.
bool string_to_json(const std::string& text, Json::Value& out);
// Compact one-line text unless `styled`.
void json_to_string(const Json::Value& value, std::string& out, bool styled);

// The member at `path`, or `fallback` when it is missing or of another type.
std::string json_get_string(const Json::Value& root, const std::string& path, const std::string& fallback);
int32_t json_get_int(const Json::Value& root, const std::string& path, int32_t fallback);
bool json_get_bool(const Json::Value& root, const std::string& path, bool fallback);
double json_get_double(const Json::Value& root, const std::string& path, double fallback);
Json::Value json_get_value(const Json::Value& root, const std::string& path);

// Single member name, no path.
bool json_is_string(const Json::Value& object, const std::string& key);
bool json_is_int(const Json::Value& object, const std::string& key);
bool json_is_object(const Json::Value& object, const std::string& key);
bool json_is_array(const Json::Value& object, const std::string& key);

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
