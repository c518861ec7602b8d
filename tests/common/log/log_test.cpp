#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/log/log.h"

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
    close(m_fds[1]);
  }
  std::string drain() {
    close(m_fds[1]);
    m_fds[1] = dup(2);  // keep TearDown's close harmless
    std::string all;
    char buf[65536];
    ssize_t n;
    while ((n = read(m_fds[0], buf, sizeof buf)) > 0) all.append(buf, static_cast<size_t>(n));
    return all;
  }
  int m_fds[2];
};

TEST_F(LogPipe, LineCarriesTimeNamePidLevelFunctionAndText) {
  TC_LOG(2, "deal_message, value:%d %s", 42, "x");
  std::string out = drain();
  int y, mo, d, h, mi, sec, ms, pid, rest = -1;
  ASSERT_EQ(std::sscanf(out.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ log-test[%d]: %n",
                        &y, &mo, &d, &h, &mi, &sec, &ms, &pid, &rest), 8) << out;
  ASSERT_GT(rest, 0) << out;
  EXPECT_EQ(out.substr(0, 24)[23], 'Z') << out;  // exactly three millisecond digits
  EXPECT_EQ(pid, getpid());
  EXPECT_EQ(out.substr(static_cast<size_t>(rest)), "W TestBody: deal_message, value:42 x\n");
}

TEST_F(LogPipe, TraceLinesOnlyWhenAskedFor) {
  TC_LOG(0, "per packet");
  log_set_trace(true);
  TC_LOG(0, "per packet, traced");
  log_set_trace(false);
  TC_LOG(1, "info");
  std::string out = drain();
  EXPECT_EQ(out.find("per packet\n"), std::string::npos);
  EXPECT_NE(out.find(" T TestBody: per packet, traced\n"), std::string::npos);
  EXPECT_NE(out.find(" I TestBody: info\n"), std::string::npos);
}

TEST_F(LogPipe, LongLinesAndPercentSignsSurviveWhole) {
  std::string big(5000, 'a');
  TC_LOG(1, "%s|end", big.c_str());
  log_print_text(3, nullptr, nullptr, __FILE__, "handler", __LINE__, "100% literal %s");
  std::string out = drain();
  EXPECT_NE(out.find(big + "|end\n"), std::string::npos);
  EXPECT_NE(out.find(" E handler: 100% literal %s\n"), std::string::npos);
}

TEST_F(LogPipe, ThreadsNeverInterleaveLines) {
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::string body(200, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) TC_LOG(1, "%d:%s", t, body.c_str());
    });
  }
  for (auto& th : threads) th.join();
  std::string out = drain();
  const std::string marker = " I operator(): ";
  size_t count = 0;
  size_t start = 0;
  for (size_t nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1) {
    std::string one = out.substr(start, nl - start);
    size_t at = one.find(marker);
    ASSERT_NE(at, std::string::npos) << one;
    std::string body = one.substr(at + marker.size());
    ASSERT_EQ(body.size(), 202u) << one;
    ASSERT_TRUE(body[0] >= '0' && body[0] < '0' + kThreads && body[1] == ':') << one;
    EXPECT_EQ(body.substr(2), std::string(200, static_cast<char>('a' + (body[0] - '0')))) << one;
    ++count;
  }
  EXPECT_EQ(count, static_cast<size_t>(kThreads * kLines));
}

}  // namespace
