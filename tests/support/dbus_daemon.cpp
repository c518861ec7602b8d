#include "tests/support/dbus_daemon.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace tc_test {

DBusDaemon::~DBusDaemon() {
  stop();
  if (!m_dir.empty()) rmdir(m_dir.c_str());
}

bool DBusDaemon::start(const std::string& socket_path, const std::string& config_file) {
  m_error.clear();
  if (m_dir.empty()) {
    char dir[] = "/tmp/tc-dbus-XXXXXX";
    if (!mkdtemp(dir)) {
      m_error = std::string("mkdtemp: ") + strerror(errno);
      return false;
    }
    m_dir = dir;
  }
  m_socket = socket_path.empty() ? m_dir + "/bus_socket" : socket_path;
  std::error_code ignored;  // a folder that cannot be made shows as the daemon's error
  std::filesystem::create_directories(m_socket.substr(0, m_socket.rfind('/')), ignored);
  unlink(m_socket.c_str());
  m_daemon = std::make_unique<ChildProcess>(std::vector<std::string>{
      "/usr/bin/dbus-daemon", "--config-file=" + (config_file.empty() ? TC_SOURCE_DIR "/tests/support/dbus_daemon.conf" : config_file),
      "--address=" + address(), "--nofork", "--print-address", "--nosyslog"});
  // The daemon prints its address once it listens.
  if (!m_daemon->wait_for_line(address(), 10000)) {
    m_error = "no address printed; dbus-daemon said: " + m_daemon->output();
    stop();
    return false;
  }
  return true;
}

void DBusDaemon::end(int sig) {
  if (m_daemon) {
    m_daemon->signal(sig);
    if (!m_daemon->wait_exit(2000, nullptr)) m_daemon->signal(SIGKILL);
    m_daemon.reset();  // reaps it
  }
  if (sig != SIGKILL && !m_socket.empty()) unlink(m_socket.c_str());
}

}  // namespace tc_test
