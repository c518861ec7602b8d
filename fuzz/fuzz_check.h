#pragma once
// Shared by the fuzz targets: a failed check ends the run with its text (the
// input stays as the reproducer), and the logger stays silent, since a line
// per input would drown libFuzzer's own output and slow it down.

#include <cstdio>
#include <cstdlib>

#include "common/log/log.h"

inline void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

inline void fuzz_quiet_log() {
  [[maybe_unused]] static const bool quiet = (log_init("fuzz", 0, 0, 2), true);
}
