#include <gtest/gtest.h>

#include <string>

#include "common/platform/src/functor/Functor.h"

using Zentrova::Iot::Platform::CFunctor;

namespace {

int g_calls = 0;
void free_function(const std::string& key, int& result) {
  ++g_calls;
  result = static_cast<int>(key.size());
}

struct Target {
  std::string seen;
  void on_config(const std::string& key, int& result) {
    seen = key;
    result = 7;
  }
  void peek(const std::string& key, int& result) const { result = static_cast<int>(key.size()) + 100; }
};

using ConfigCallback = CFunctor<const std::string&, int&>;

TEST(CFunctor, HoldsMemberFreeOrNothing) {
  Target target;
  ConfigCallback member(&target, &Target::on_config);
  ConfigCallback fn(&free_function);
  ConfigCallback none;
  ConfigCallback null_fn(static_cast<ConfigCallback::Function>(nullptr));
  EXPECT_TRUE(null_fn.empty());

  int result = 0;
  member("gw_tc_serial_devices", result);
  EXPECT_EQ(result, 7);
  EXPECT_EQ(target.seen, "gw_tc_serial_devices");
  g_calls = 0;
  fn("abc", result);
  EXPECT_EQ(result, 3);
  EXPECT_EQ(g_calls, 1);
  result = 42;
  none("abc", result);  // does nothing
  null_fn("abc", result);
  EXPECT_EQ(result, 42);

  ConfigCallback by_const(&target, &Target::peek);
  by_const("ab", result);
  EXPECT_EQ(result, 102);
}

TEST(CFunctor, CopiesAreIndependentValues) {
  Target a, b;
  ConfigCallback f(&a, &Target::on_config);
  ConfigCallback copy = f;
  f = ConfigCallback(&b, &Target::on_config);
  int r = 0;
  copy("first", r);
  f("second", r);
  EXPECT_EQ(a.seen, "first");
  EXPECT_EQ(b.seen, "second");
}

}  // namespace
