#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/json/json_text.h"

using namespace Zentrova::Iot::Platform;

namespace {

TEST(StringToJson, RejectsBrokenTextAndLeavesNull) {
  for (const std::string& text : std::vector<std::string>{"", "{", "[1,", "nope", std::string("{\"a\":\0}", 7)}) {
    Json::Value out = 5;
    EXPECT_FALSE(string_to_json(text, out)) << text;
    EXPECT_TRUE(out.isNull()) << text;
  }
}

TEST(StringToJson, DeepNestingFailsInsteadOfThrowing) {
  for (int depth : {300, 1000, 100000}) {
    std::string text = std::string(depth, '[') + std::string(depth, ']');
    Json::Value out;
    EXPECT_FALSE(string_to_json(text, out)) << depth;
    EXPECT_TRUE(out.isNull());
  }
  Json::Value ok;
  EXPECT_TRUE(string_to_json(std::string(100, '[') + std::string(100, ']'), ok));
}

TEST(StringToJson, ParsesBytesBeyondAnEmbeddedZeroAsPartOfTheText) {
  Json::Value out;
  ASSERT_TRUE(string_to_json(std::string("{\"a\":\"x\\u0000y\"}"), out));
  EXPECT_EQ(out["a"].asString(), std::string("x\0y", 3));
}

TEST(JsonGet, FallbackForMissingMistypedOrNonObjectSteps) {
  Json::Value doc;
  ASSERT_TRUE(string_to_json(R"({"a":{"b":"5","n":5,"d":1.5,"t":true},"s":"x","arr":[1]})", doc));
  EXPECT_EQ(json_get_int(doc, "a.n", 7), 5);
  EXPECT_EQ(json_get_int(doc, "a.b", 7), 7);       // text, not a number
  EXPECT_EQ(json_get_int(doc, "a.d", 7), 7);       // double where an int is wanted
  EXPECT_EQ(json_get_int(doc, "missing.b", 7), 7);
  EXPECT_EQ(json_get_int(doc, "s.b", 7), 7);       // step through a string
  EXPECT_EQ(json_get_int(doc, "arr.b", 7), 7);     // step through an array
  EXPECT_EQ(json_get_string(doc, "a.n", ""), "");
  EXPECT_EQ(json_get_string(doc, "a.b", ""), "5");
  EXPECT_TRUE(json_get_bool(doc, "a.t", false));
  EXPECT_FALSE(json_get_bool(doc, "a.n", false));
  EXPECT_DOUBLE_EQ(json_get_double(doc, "a.d", 0), 1.5);
  EXPECT_TRUE(json_get_value(doc, "a.zz").isNull());
  EXPECT_EQ(json_get_value(doc, "a.n").asInt(), 5);

  Json::Value rf;
  ASSERT_TRUE(string_to_json(R"({"class-c":{"SF":"9"}})", rf));
  EXPECT_EQ(json_get_string(rf, "class-c.SF", "7"), "9");
  Json::Value scalar = 3;
  EXPECT_EQ(json_get_int(scalar, "a", 7), 7);
}

}  // namespace
