#pragma once
// What /proc tells about a bridge process: CPU time, memory, context switches;
// and the clock and result lines every bench program shares.

#include <sys/types.h>

#include <cstdint>
#include <map>

namespace tc_bench {

struct ProcSample {
  double cpu_s = 0;           // utime + stime, in clock ticks of 10 ms
  double run_s = 0;           // time on a CPU from the scheduler's statistics, summed over the live threads (ns precision)
  uint64_t ctx_switches = 0;  // voluntary + involuntary, summed over the live threads
  long rss_kb = 0;
  long hwm_kb = 0;            // peak RSS
  long rss_anon_kb = 0;
  long pss_kb = 0;
  int threads = 0;
  std::map<int, uint64_t> thread_switches;  // per thread id
};

ProcSample sample_process(pid_t pid);

// Monotonic seconds.
double now_s();

// Result lines go to stdout, or to the file opened here ("w" or "a"), and to
// stderr indented, so a run shows its progress.
bool open_report(const char* path, const char* mode);
void report(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tc_bench
