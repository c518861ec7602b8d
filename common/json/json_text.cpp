#include "common/json/json_text.h"

#include <exception>
#include <memory>

namespace Zentrova {
namespace Iot {
namespace Platform {

namespace {
// Text arrives from the bus and the network; deeper documents are refused
// instead of letting the reader recurse (and throw) at its own limit.
constexpr int kNestingLimit = 256;

const Json::Value& resolve(const Json::Value& root, const std::string& path) {
  // Most lookups name one member; a Path would parse the name each time.
  if (!path.empty() && path.find_first_of(".[]%") == std::string::npos) {
    if (!root.isObject()) return Json::Value::nullSingleton();
    const Json::Value* member = root.find(path.data(), path.data() + path.size());
    return member ? *member : Json::Value::nullSingleton();
  }
  try {
    return Json::Path(path).resolve(root);
  } catch (const std::exception&) {
    return Json::Value::nullSingleton();
  }
}

// Building a reader's settings costs more than parsing a short datagram, so
// each thread keeps one reader (a reader must not be shared by two threads).
Json::CharReader& reader() {
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kNestingLimit;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  return *reader;
}

Json::StreamWriterBuilder writer_builder(bool styled) {
  Json::StreamWriterBuilder builder;
  if (!styled) builder["indentation"] = "";
  return builder;
}
}  // namespace

bool string_to_json(const std::string& text, Json::Value& out) {
  std::string errors;
  bool ok = false;
  try {
    ok = reader().parse(text.data(), text.data() + text.size(), &out, &errors);
  } catch (const std::exception&) {
    ok = false;
  }
  if (!ok) out = Json::Value();
  return ok;
}

void json_to_string(const Json::Value& value, std::string& out, bool styled) {
  static const Json::StreamWriterBuilder compact = writer_builder(false);
  static const Json::StreamWriterBuilder indented = writer_builder(true);
  out = Json::writeString(styled ? indented : compact, value);
}

std::string json_get_string(const Json::Value& root, const std::string& path, const std::string& fallback) {
  const Json::Value& v = resolve(root, path);
  return v.isString() ? v.asString() : fallback;
}

int32_t json_get_int(const Json::Value& root, const std::string& path, int32_t fallback) {
  const Json::Value& v = resolve(root, path);
  return v.isInt() ? v.asInt() : fallback;
}

bool json_get_bool(const Json::Value& root, const std::string& path, bool fallback) {
  const Json::Value& v = resolve(root, path);
  return v.isBool() ? v.asBool() : fallback;
}

double json_get_double(const Json::Value& root, const std::string& path, double fallback) {
  const Json::Value& v = resolve(root, path);
  return v.isDouble() ? v.asDouble() : fallback;
}

Json::Value json_get_value(const Json::Value& root, const std::string& path) { return resolve(root, path); }

bool json_is_string(const Json::Value& object, const std::string& key) {
  return object.isObject() && object.isMember(key) && object[key].isString();
}

bool json_is_int(const Json::Value& object, const std::string& key) {
  return object.isObject() && object.isMember(key) && object[key].isInt();
}

bool json_is_object(const Json::Value& object, const std::string& key) {
  return object.isObject() && object.isMember(key) && object[key].isObject();
}

bool json_is_array(const Json::Value& object, const std::string& key) {
  return object.isObject() && object.isMember(key) && object[key].isArray();
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
