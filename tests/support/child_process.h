#pragma once
// A program started by a test, with its standard output and error merged and
// collected line by line on a reader thread.  It is killed when the thread
// that started it ends, so start it from the test's own thread.

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tc_test {

class ChildProcess {
 public:
  // `pending`: signals the program starts with, blocked and already pending,
  // as a careless parent could leave them.
  explicit ChildProcess(const std::vector<std::string>& argv, const std::vector<int>& pending = {});
  // Kills the program (SIGKILL) if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return m_pid; }
  bool started() const { return m_pid > 0; }
  bool signal(int sig) const;
  // Writes to the program's standard input.
  bool write_input(const std::string& text) const;
  void close_input();
  // False on time-out; `status` gets the raw wait status.
  bool wait_exit(int timeout_ms, int* status);
  bool wait_for_line(const std::string& substring, int timeout_ms, size_t n = 1) const;
  size_t count_lines(const std::string& substring) const;
  std::vector<std::string> lines() const;
  std::string output() const;

 private:
  void read_output(int fd);
  size_t matching(const std::string& substring) const;  // with m_mutex held

  pid_t m_pid = -1;
  bool m_reaped = false;
  int m_input = -1;
  std::thread m_reader;
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  std::vector<std::string> m_lines;
  std::string m_partial;
};

// Exit code of a wait status, or 128 + signal number.
int exit_code(int status);

}  // namespace tc_test
