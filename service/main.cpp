// transparent-channel: process entry, signals and the exit wait.

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <initializer_list>

#include "common/log/log.h"
#include "common/platform/src/lock/semaphore.h"

using Zentrova::Iot::Platform::CSemaphore;

namespace {

std::atomic<bool> g_running{true};
CSemaphore g_exit_semaphore(0);

// strsignal() may allocate and lock, so its texts are taken once, before any
// handler is installed, and the handler only copies them.
constexpr int kSignalText = 64;
char g_signal_text[NSIG][kSignalText];

void copy_text(char* to, size_t cap, size_t& len, const char* from) {
  while (*from && len + 1 < cap) to[len++] = *from++;
  to[len] = '\0';
}

void install_signal_handlers();

}  // namespace

void service_exit() {
  g_running.store(false);
  g_exit_semaphore.post();
}

// Async-signal-safe: the line is assembled by hand and written with one write(2).
void system_signal_handler(int sig) {
  const int saved_errno = errno;
  char text[128];
  size_t len = 0;
  copy_text(text, sizeof text, len, "caught ");
  copy_text(text, sizeof text, len, (sig > 0 && sig < NSIG) ? g_signal_text[sig] : "Unknown");
  copy_text(text, sizeof text, len, " signal, exit");
  log_print_text(2, nullptr, nullptr, __FILE__, __func__, __LINE__, text);
  if (sig == SIGSEGV) _exit(255);
  service_exit();
  errno = saved_errno;
}

int start() {
  g_running.store(true);

  while (g_running.load()) {
    TC_LOG(1, "start, transparent-channel startup success.");
    g_exit_semaphore.wait(0);
  }

  return 1;
}

int main(int /*argc*/, char** /*argv*/) {
  log_init("transparent-channel", 1, 0, 2);
  TC_LOG(1, "transparent-channel start.");
  install_signal_handlers();
  start();
  TC_LOG(1, "transparent-channel exit.");
  return 0;
}

namespace {

void install_signal_handlers() {
  for (int sig = 1; sig < NSIG; ++sig) {
    size_t len = 0;
    const char* text = strsignal(sig);
    copy_text(g_signal_text[sig], kSignalText, len, text ? text : "Unknown");
  }

  struct sigaction action {};
  action.sa_handler = system_signal_handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  for (int sig : {SIGTERM, SIGINT, SIGSEGV, SIGPIPE, SIGQUIT, SIGILL, SIGABRT, SIGUSR1}) {
    sigaction(sig, &action, nullptr);
  }
  // SIGPIPE is ignored after all: a write to a closed socket must never end the process.
  for (int sig : {SIGTTOU, SIGTTIN, SIGTSTP, SIGHUP, SIGPIPE}) signal(sig, SIG_IGN);
}

}  // namespace
