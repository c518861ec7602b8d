#include "common/log/log.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr size_t kNameSize = 64;
// A short line is built on the stack; only a longer one goes to the heap.
constexpr size_t kStackLine = 1024;

char g_name[kNameSize] = "";
std::atomic<int> g_fd{2};
std::atomic<bool> g_enabled{true};
std::atomic<bool> g_trace{false};
std::atomic<bool> g_tty{false};
// getpid() is a system call, and every line names the process: the number is
// kept, and forgotten in a forked child.
std::atomic<pid_t> g_pid{0};
void forget_pid() { g_pid.store(0, std::memory_order_relaxed); }
[[maybe_unused]] const int g_pid_forget = pthread_atfork(nullptr, nullptr, forget_pid);
std::atomic<const LogCapture*> g_capture{nullptr};

// Appends text to a fixed buffer, cutting it when full.  Async-signal-safe.
struct Cursor {
  char* buf;
  size_t cap;
  size_t len = 0;
  void put(const char* s) {
    while (*s && len < cap) buf[len++] = *s++;
  }
  void put(char c) {
    if (len < cap) buf[len++] = c;
  }
  void number(unsigned long v, int width) {
    char digits[24];
    int n = 0;
    do {
      digits[n++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v && n < 24);
    while (n < width && n < 24) digits[n++] = '0';
    while (n) put(digits[--n]);
  }
};

// Civil date from days since 1970-01-01 (Howard Hinnant's algorithm); plain
// arithmetic, because gmtime_r/localtime_r may take locks.
void civil_from_days(long z, long& y, unsigned& m, unsigned& d) {
  z += 719468;
  const long era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<long>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
}

char level_letter(int level) {
  switch (level) {
    case 0: return 'T';
    case 1: return 'I';
    case 2: return 'W';
    default: return 'E';
  }
}

const char* level_color(int level) {
  switch (level) {
    case 2: return "\033[33m";
    case 3: return "\033[31m";
    default: return "";
  }
}

const char* program_name() {
  return g_name[0] ? g_name : program_invocation_short_name;
}

void write_all(int fd, const char* buf, size_t len) {
  while (len > 0) {
    ssize_t n = ::write(fd, buf, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    buf += n;
    len -= static_cast<size_t>(n);
  }
}

size_t prefix(char* buf, size_t cap, int level, const char* color, const char* function) {
  Cursor c{buf, cap};
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  long days = ts.tv_sec / 86400;
  long secs = ts.tv_sec % 86400;
  long y;
  unsigned mo, d;
  civil_from_days(days, y, mo, d);
  c.number(static_cast<unsigned long>(y), 4);
  c.put('-');
  c.number(mo, 2);
  c.put('-');
  c.number(d, 2);
  c.put('T');
  c.number(static_cast<unsigned long>(secs / 3600), 2);
  c.put(':');
  c.number(static_cast<unsigned long>(secs / 60 % 60), 2);
  c.put(':');
  c.number(static_cast<unsigned long>(secs % 60), 2);
  c.put('.');
  c.number(static_cast<unsigned long>(ts.tv_nsec / 1000000), 3);
  c.put("Z ");
  c.put(program_name());
  c.put('[');
  pid_t pid = g_pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    g_pid.store(pid, std::memory_order_relaxed);
  }
  c.number(static_cast<unsigned long>(pid), 1);
  c.put("]: ");
  const bool colored = g_tty.load(std::memory_order_relaxed);
  const char* on = (color && *color) ? color : level_color(level);
  if (colored && *on) c.put(on);
  c.put(level_letter(level));
  if (colored && *on) c.put("\033[0m");
  c.put(' ');
  c.put(function ? function : "?");
  c.put(": ");
  return c.len;
}

bool wanted(int level) {
  if (g_capture.load(std::memory_order_acquire)) return true;
  if (!g_enabled.load(std::memory_order_relaxed)) return false;
  return level > 0 || g_trace.load(std::memory_order_relaxed);
}

bool printed(int level) {
  return g_enabled.load(std::memory_order_relaxed) && (level > 0 || g_trace.load(std::memory_order_relaxed));
}

void capture(int level, const char* tag, const char* function, const char* text) {
  const LogCapture* cap = g_capture.load(std::memory_order_acquire);
  if (cap && cap->hook) cap->hook(cap->context, LogRecord{level, tag, function, text});
}

}  // namespace

void log_init(const char* name, int enabled, int trace, int fd) {
  size_t i = 0;
  for (; name && name[i] && i + 1 < kNameSize; ++i) g_name[i] = name[i];
  g_name[i] = '\0';
  g_enabled.store(enabled != 0);
  const char* env = getenv("TC_LOG_TRACE");
  g_trace.store(trace != 0 || (env && env[0] == '1'));
  g_fd.store(fd);
  g_tty.store(isatty(fd) == 1);
}

void log_set_trace(bool on) { g_trace.store(on); }

bool log_trace_enabled() { return g_trace.load(); }

void log_set_capture(const LogCapture* capture) { g_capture.store(capture, std::memory_order_release); }

void log_print_text(int level, const char* color, const char* tag, const char* /*file*/, const char* function,
                    int /*line*/, const char* text) {
  if (!wanted(level)) return;
  capture(level, tag, function, text);
  if (!printed(level)) return;
  char buf[kStackLine];
  size_t n = prefix(buf, sizeof buf - 1, level, color, function);
  Cursor c{buf, sizeof buf - 1, n};
  c.put(text);
  buf[c.len++] = '\n';
  write_all(g_fd.load(), buf, c.len);
}

void log_print(int level, const char* color, const char* tag, const char* /*file*/, const char* function,
               int /*line*/, const char* format, ...) {
  if (!wanted(level)) return;
  char stack[kStackLine];
  char* buf = stack;
  const size_t head = prefix(stack, sizeof stack / 2, level, color, function);
  size_t room = sizeof stack - head - 1;  // keep one byte for the newline

  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int len = vsnprintf(stack + head, room, format, args);
  va_end(args);
  if (len < 0) len = 0;
  if (static_cast<size_t>(len) >= room) {
    char* heap = static_cast<char*>(malloc(head + static_cast<size_t>(len) + 2));
    if (heap) {
      memcpy(heap, stack, head);
      vsnprintf(heap + head, static_cast<size_t>(len) + 1, format, again);
      buf = heap;
    } else {
      len = static_cast<int>(room - 1);  // keep the cut line
    }
  }
  va_end(again);

  capture(level, tag, function, buf + head);
  if (printed(level)) {
    buf[head + static_cast<size_t>(len)] = '\n';
    write_all(g_fd.load(), buf, head + static_cast<size_t>(len) + 1);
  }
  if (buf != stack) free(buf);
}
