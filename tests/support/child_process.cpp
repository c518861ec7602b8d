#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace tc_test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<int>& pending) {
  int out[2], in[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) return;  // started() says so
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  sigset_t mask;
  sigemptyset(&mask);
  for (int sig : pending) sigaddset(&mask, sig);
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    // A test that dies without its destructors (a sanitizer halt, an abort)
    // takes its programs along, so nothing holds its output pipe open.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    // Start as a shell would: default dispositions and nothing else blocked (a
    // sanitizer runtime may fork with signals blocked, and exec keeps the mask).
    ::signal(SIGPIPE, SIG_DFL);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    // Pending before exec, not sent later by us: the program may unblock them first.
    for (int sig : pending) kill(getpid(), sig);
    execv(args[0], args.data());
    _exit(127);
  }
  close(out[1]);
  close(in[0]);
  m_input = in[1];
  if (m_pid < 0) {
    close(out[0]);
    return;
  }
  m_reader = std::thread(&ChildProcess::read_output, this, out[0]);
}

ChildProcess::~ChildProcess() {
  if (m_pid > 0 && !m_reaped) {
    ::kill(m_pid, SIGKILL);
    int status;
    waitpid(m_pid, &status, 0);
  }
  close_input();
  if (m_reader.joinable()) m_reader.join();
}

void ChildProcess::read_output(int fd) {
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_partial.append(buf, static_cast<size_t>(n));
    size_t pos;
    while ((pos = m_partial.find('\n')) != std::string::npos) {
      m_lines.push_back(m_partial.substr(0, pos));
      m_partial.erase(0, pos + 1);
    }
    m_changed.notify_all();
  }
  close(fd);
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_partial.empty()) m_lines.push_back(m_partial);
  m_partial.clear();
  m_changed.notify_all();
}

bool ChildProcess::signal(int sig) const { return m_pid > 0 && !m_reaped && ::kill(m_pid, sig) == 0; }

bool ChildProcess::write_input(const std::string& text) const {
  if (m_input < 0) return false;
  return ::write(m_input, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void ChildProcess::close_input() {
  if (m_input >= 0) close(m_input);
  m_input = -1;
}

bool ChildProcess::wait_exit(int timeout_ms, int* status) {
  if (m_pid <= 0) return false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int st = 0;
    pid_t r = waitpid(m_pid, &st, WNOHANG);
    if (r == m_pid) {
      m_reaped = true;
      if (status) *status = st;
      if (m_reader.joinable()) m_reader.join();
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    usleep(10 * 1000);
  }
}

size_t ChildProcess::matching(const std::string& substring) const {
  size_t found = 0;
  for (const auto& l : m_lines) found += l.find(substring) != std::string::npos;
  return found;
}

bool ChildProcess::wait_for_line(const std::string& substring, int timeout_ms, size_t n) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return matching(substring) >= n; });
}

size_t ChildProcess::count_lines(const std::string& substring) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return matching(substring);
}

std::vector<std::string> ChildProcess::lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

std::string ChildProcess::output() const {
  std::string all;
  for (const auto& l : lines()) all += l + "\n";
  return all;
}

int exit_code(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace tc_test
