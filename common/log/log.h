#pragma once
// The service's logger: one line per call, written to a descriptor (stderr by
// default) with a single write(2), so lines from different threads never
// interleave.
//
// Line layout:
//   2026-11-22T23:04:05.123Z transparent-channel[1234]: W deal_message: text
// Levels: 0 per-packet trace (T), 1 information (I), 2 warning or failed
// operation (W), 3 socket and file I/O error (E).

#include <cstdarg>

// name:    program name printed in every line.
// enabled: 1 writes lines, 0 keeps the logger silent (the capture hook still runs).
// trace:   1 prints level-0 trace lines too; 0 leaves them out.  The environment
//          variable TC_LOG_TRACE=1 turns them on whatever is passed here.
// fd:      descriptor the lines are written to (2 for stderr).
void log_init(const char* name, int enabled, int trace, int fd);

void log_print(int level, const char* color, const char* tag, const char* file, const char* function,
               int line, const char* format, ...) __attribute__((format(printf, 7, 8)));

// The same line without any formatting: async-signal-safe (no allocation, no
// locks, no stdio), so signal handlers may use it.
void log_print_text(int level, const char* color, const char* tag, const char* file, const char* function,
                    int line, const char* text);

void log_set_trace(bool on);
bool log_trace_enabled();

// Capture hook, for tests: receives every line logged, level 0 included,
// whether or not it is printed.  `text` is the formatted message alone.
struct LogRecord {
  int level;
  const char* tag;
  const char* function;
  const char* text;
};
struct LogCapture {
  void (*hook)(void* context, const LogRecord& record);
  void* context;
};
// Installs (or, with nullptr, removes) the capture.  The object must outlive
// every log call that may still see it.
void log_set_capture(const LogCapture* capture);

#define TC_LOG(level, ...) log_print((level), nullptr, nullptr, __FILE__, __func__, __LINE__, __VA_ARGS__)
