#include <gtest/gtest.h>

#include <string>

#include "common/platform/src/functor/Functor.h"

using Zentrova::Iot::Platform::CFunctor;

namespace {

void key_length(const std::string& key, int& result) { result = static_cast<int>(key.size()); }

struct Target {
  std::string seen;
  void on_config(const std::string& key, int& result) {
    seen = key;
    result = 7;
  }
};

using ConfigCallback = CFunctor<const std::string&, int&>;

// Callers rely on an empty callback being a harmless no-op, and on copies
// keeping the object they were made with.
TEST(CFunctor, CallsMemberOrFreeFunctionAndAnEmptyOneDoesNothing) {
  Target a, b;
  ConfigCallback member(&a, &Target::on_config);
  ConfigCallback copy = member;
  member = ConfigCallback(&b, &Target::on_config);
  int result = 0;
  copy("first", result);
  EXPECT_EQ(result, 7);
  member("second", result);
  EXPECT_EQ(a.seen, "first");
  EXPECT_EQ(b.seen, "second");

  ConfigCallback{&key_length}("abc", result);
  EXPECT_EQ(result, 3);
  result = 42;
  ConfigCallback{}("abc", result);
  ConfigCallback null_fn(static_cast<ConfigCallback::Function>(nullptr));
  EXPECT_TRUE(null_fn.empty());
  null_fn("abc", result);
  EXPECT_EQ(result, 42);
}

}  // namespace
