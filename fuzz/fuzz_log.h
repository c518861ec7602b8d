#pragma once
// Logger set-up shared by the fuzz targets: silent by default, since a line
// per input would drown libFuzzer's own output and slow it down.
// TC_FUZZ_LOG=1 formats every line, trace included, into /dev/null instead,
// so that the log formats themselves see the fuzzed texts.

#include <fcntl.h>

#include <cstdlib>

#include "common/log/log.h"

inline void fuzz_log_init() {
  const char* env = std::getenv("TC_FUZZ_LOG");
  if (env && env[0] == '1') {
    const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
      log_init("fuzz", 1, 1, fd);
      return;
    }
  }
  log_init("fuzz", 0, 0, 2);
}
