#pragma once
// Small waiting and timing helpers shared by the threaded tests.

#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <thread>

namespace tc_test {

// Polls `cond` every 5 ms for up to `ms`; its last value.
inline bool eventually(const std::function<bool()>& cond, int ms = 3000) {
  for (int waited = 0; waited < ms; waited += 5) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return cond();
}

// CPU time this process has used so far, user and system.
inline long cpu_ms() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

}  // namespace tc_test
