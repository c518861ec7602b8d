#pragma once
// A private dbus-daemon for one test, listening on a unix socket of its own
// (by default in a fresh temporary directory, removed again at the end).

#include <signal.h>

#include <memory>
#include <string>

#include "tests/support/child_process.h"

namespace tc_test {

class DBusDaemon {
 public:
  DBusDaemon() = default;
  // Stops the daemon and removes what start() created.
  ~DBusDaemon();
  DBusDaemon(const DBusDaemon&) = delete;
  DBusDaemon& operator=(const DBusDaemon&) = delete;

  // Starts the daemon and waits (up to 10 s) until it listens.  An empty path
  // puts the socket in a fresh temporary directory; a given path (its
  // directories made as needed, a stale socket removed) serves tests of a
  // fixed bus address.  `config_file` replaces the permissive test policy.
  // On false, error() says why.
  bool start(const std::string& socket_path = "", const std::string& config_file = "");
  // SIGKILL: the bus vanishes at once, as in a crash.
  void kill() { end(SIGKILL); }
  // SIGTERM (SIGKILL after 2 s); removes the socket.  Safe when not running.
  void stop() { end(SIGTERM); }

  // "unix:path=<socket>", as clients pass it to libdbus.
  std::string address() const { return "unix:path=" + m_socket; }
  const std::string& error() const { return m_error; }

 private:
  void end(int sig);

  std::unique_ptr<ChildProcess> m_daemon;
  std::string m_dir;
  std::string m_socket;
  std::string m_error;
};

}  // namespace tc_test
