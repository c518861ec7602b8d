#include "bench/proc_stats.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace tc_bench {

namespace {

std::FILE* g_report = stdout;

long field_kb(const std::string& path, const char* key) {
  std::ifstream in(path);
  std::string line;
  const size_t klen = strlen(key);
  while (std::getline(in, line)) {
    if (line.compare(0, klen, key) == 0) return atol(line.c_str() + klen);
  }
  return 0;
}

}  // namespace

double now_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

ProcSample sample_process(pid_t pid) {
  ProcSample s;
  const std::string dir = "/proc/" + std::to_string(pid);
  std::ifstream stat(dir + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t paren = text.rfind(')');
  if (paren != std::string::npos) {
    // Fields after the command name start at field 3 (state); utime and stime are 14 and 15.
    std::istringstream rest(text.substr(paren + 2));
    std::string f;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && (rest >> f); ++i) {
      if (i == 14) utime = std::stoull(f);
      if (i == 15) stime = std::stoull(f);
    }
    s.cpu_s = static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  s.rss_kb = field_kb(dir + "/status", "VmRSS:");
  s.hwm_kb = field_kb(dir + "/status", "VmHWM:");
  s.rss_anon_kb = field_kb(dir + "/status", "RssAnon:");
  s.pss_kb = field_kb(dir + "/smaps_rollup", "Pss:");
  if (DIR* tasks = opendir((dir + "/task").c_str())) {
    while (dirent* e = readdir(tasks)) {
      if (e->d_name[0] == '.') continue;
      const std::string st = dir + "/task/" + e->d_name + "/status";
      const uint64_t switches = static_cast<uint64_t>(field_kb(st, "voluntary_ctxt_switches:")) +
                                static_cast<uint64_t>(field_kb(st, "nonvoluntary_ctxt_switches:"));
      s.ctx_switches += switches;
      s.thread_switches[atoi(e->d_name)] = switches;
      std::ifstream sched(dir + "/task/" + e->d_name + "/schedstat");
      unsigned long long run_ns = 0;
      if (sched >> run_ns) s.run_s += static_cast<double>(run_ns) / 1e9;
      ++s.threads;
    }
    closedir(tasks);
  }
  return s;
}

bool open_report(const char* path, const char* mode) {
  g_report = fopen(path, mode);
  return g_report != nullptr;
}

void report(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char line[1024];
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  fprintf(g_report, "%s\n", line);
  fflush(g_report);
  fprintf(stderr, "  %s\n", line);
}

}  // namespace tc_bench
