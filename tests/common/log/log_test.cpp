#include "common/log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
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
  for (size_t i = 0; i < 4; ++i) {
    int y, mo, d, h, mi, sec, ms, pid, rest = -1;
    ASSERT_EQ(std::sscanf(lines[i].c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ log-test[%d]: %n", &y, &mo, &d, &h, &mi,
                          &sec, &ms, &pid, &rest),
              8)
        << lines[i];
    EXPECT_EQ(lines[i][23], 'Z') << "exactly three millisecond digits: " << lines[i];
    EXPECT_EQ(pid, getpid());
    EXPECT_EQ(lines[i].substr(static_cast<size_t>(rest)), expected[i]);
  }
}

TEST_F(LogPipe, ThreadsNeverInterleaveLines) {
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string body(200, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) TC_LOG(1, "%d:%s", t, body.c_str());
    });
  }
  for (auto& th : threads) th.join();
  const std::vector<std::string> lines = drain();
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  for (const std::string& line : lines) {
    const size_t at = line.find(" I operator(): ");
    ASSERT_NE(at, std::string::npos) << line;
    const std::string body = line.substr(at + 15);
    ASSERT_TRUE(body.size() == 202 && body[0] >= '0' && body[0] < '0' + kThreads && body[1] == ':') << line;
    EXPECT_EQ(body.substr(2), std::string(200, static_cast<char>('a' + (body[0] - '0')))) << line;
  }
}

}  // namespace
