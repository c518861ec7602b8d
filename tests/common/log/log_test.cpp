#include "common/log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <thread>
#include <vector>

namespace {

// Routes the logger to a pipe for the life of the test and restores it after.
class LogPipe : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(m_fds), 0);
    // Room for every line of a test, so writers never wait for the reader.
    ASSERT_GT(fcntl(m_fds[1], F_SETPIPE_SZ, 1 << 20), 0);
    log_init("log-test", 1, 0, m_fds[1]);
  }
  void TearDown() override {
    log_init("tc-test", 0, 0, 2);
    close(m_fds[0]);
  }
  // Every line written so far, without the time stamp's digits checked.
  std::vector<std::string> drain() {
    log_init("tc-test", 0, 0, 2);
    close(m_fds[1]);
    std::string all;
    char buf[65536];
    for (ssize_t n; (n = read(m_fds[0], buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(n));
    std::vector<std::string> lines;
    for (size_t start = 0, nl; (nl = all.find('\n', start)) != std::string::npos; start = nl + 1) {
      lines.push_back(all.substr(start, nl - start));
    }
    return lines;
  }
  int m_fds[2];
};

// "<time> <name>[<pid>]: <level> <function>: <text>", trace lines only when
// asked for, long lines and percent signs whole.
TEST_F(LogPipe, LinesCarryTimeNamePidLevelFunctionAndWholeText) {
  TC_LOG(2, "deal_message, value:%d %s", 42, "x");
  TC_LOG(0, "per packet");
  log_set_trace(true);
  TC_LOG(0, "per packet, traced");
  log_set_trace(false);
  const std::string big(5000, 'a');
  TC_LOG(1, "%s|end", big.c_str());
  log_print_text(3, nullptr, nullptr, __FILE__, "handler", __LINE__, "100% literal %s");
  const std::vector<std::string> lines = drain();
  ASSERT_EQ(lines.size(), 4u);
  const std::string expected[] = {"W TestBody: deal_message, value:42 x", "T TestBody: per packet, traced",
                                  "I TestBody: " + big + "|end", "E handler: 100% literal %s"};
  const std::string head = "0000-00-00T00:00:00.000Z log-test[" + std::to_string(getpid()) + "]: ";  // 0: any digit
  for (size_t i = 0; i < 4; ++i) {
    std::string seen = lines[i];
    std::replace_if(seen.begin(), seen.begin() + std::min<size_t>(24, seen.size()), ::isdigit, '0');
    EXPECT_EQ(seen, head + expected[i]);
  }
}

TEST_F(LogPipe, ThreadsNeverInterleaveLines) {
  std::vector<std::thread> threads;
  for (char t = 'a'; t < 'e'; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) TC_LOG(1, "%c:%s", t, std::string(200, t).c_str());
    });
  }
  for (auto& th : threads) th.join();
  const std::vector<std::string> lines = drain();
  ASSERT_EQ(lines.size(), 1200u);
  for (const std::string& line : lines) {
    const char t = line.empty() ? 0 : line.back();  // each line ends as its thread wrote it whole
    const std::string tail = std::string(" I operator(): ") + t + ":" + std::string(200, t);
    EXPECT_TRUE(line.size() > tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0) << line;
  }
}

}  // namespace
