#include "common/json/json_text.h"

#include <gtest/gtest.h>

using namespace Zentrova::Iot::Platform;

namespace {

// Broken or too deeply nested text fails (never throws) and leaves null;
// bytes past an escaped zero still belong to the text.
TEST(StringToJson, AcceptsOnlyWholeDocumentsOfBoundedDepth) {
  const std::pair<std::string, bool> cases[] = {
      {"", false},
      {"{", false},
      {"[1,", false},
      {"nope", false},
      {std::string("{\"a\":\0}", 7), false},
      {std::string(300, '[') + std::string(300, ']'), false},
      {std::string(100000, '[') + std::string(100000, ']'), false},
      {std::string(100, '[') + std::string(100, ']'), true},
  };
  for (const auto& [text, ok] : cases) {
    Json::Value out = 5;
    EXPECT_EQ(string_to_json(text, out), ok) << text.substr(0, 40);
    EXPECT_EQ(out.isNull(), !ok) << text.substr(0, 40);
  }
  Json::Value out;
  ASSERT_TRUE(string_to_json("{\"a\":\"x\\u0000y\"}", out));
  EXPECT_EQ(out["a"].asString(), std::string("x\0y", 3));
}

// A path's value of the wanted type, or the fallback for a missing or
// mistyped value or a step through something that is not an object.
TEST(JsonGet, FallbackForMissingMistypedOrNonObjectSteps) {
  Json::Value doc;
  ASSERT_TRUE(string_to_json(R"({"a":{"b":"5","n":5,"d":1.5,"t":true},"s":"x","arr":[1],"class-c":{"SF":"9"}})", doc));
  const std::pair<const char*, int> ints[] = {{"a.n", 5},       {"a.b", 7}, {"a.d", 7},   {"missing.b", 7},
                                              {"s.b", 7},       {"arr.b", 7}, {"a.t", 7}};
  for (const auto& [path, value] : ints) EXPECT_EQ(json_get_int(doc, path, 7), value) << path;
  EXPECT_EQ(json_get_string(doc, "a.n", "-"), "-");
  EXPECT_EQ(json_get_string(doc, "a.b", "-"), "5");
  EXPECT_EQ(json_get_string(doc, "class-c.SF", "-"), "9");
  EXPECT_TRUE(json_get_bool(doc, "a.t", false));
  EXPECT_FALSE(json_get_bool(doc, "a.n", false));
  EXPECT_DOUBLE_EQ(json_get_double(doc, "a.d", 0), 1.5);
  EXPECT_DOUBLE_EQ(json_get_double(doc, "a.b", 2.5), 2.5);
  EXPECT_TRUE(json_get_value(doc, "a.zz").isNull());
  EXPECT_EQ(json_get_int(Json::Value(3), "a", 7), 7);
}

}  // namespace
