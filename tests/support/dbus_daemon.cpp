#include "tests/support/dbus_daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace tc_test {

namespace {

constexpr int kStartTimeoutMs = 10000;

// The configuration lives beside this source file.
std::string config_path() {
  std::string here = __FILE__;
  return here.substr(0, here.rfind('/') + 1) + "dbus_daemon.conf";
}

void make_dirs(const std::string& dir) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = dir.find('/', pos + 1);
    mkdir(dir.substr(0, pos).c_str(), 0755);
  }
}

bool accepts(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

}  // namespace

DBusDaemon::~DBusDaemon() {
  stop();
  if (!m_dir.empty()) {
    unlink((m_dir + "/daemon.log").c_str());
    rmdir(m_dir.c_str());
  }
}

bool DBusDaemon::fail(const std::string& why) {
  m_error = why;
  const std::string log = read_log();
  if (!log.empty()) m_error += "; dbus-daemon said: " + log;
  stop();
  return false;
}

std::string DBusDaemon::read_log() const {
  if (m_dir.empty()) return "";
  std::ifstream in(m_dir + "/daemon.log");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool DBusDaemon::start(const std::string& socket_path, const std::string& config_file) {
  if (running()) return fail("already running");
  m_error.clear();
  if (m_dir.empty()) {
    char dir[] = "/tmp/tc-dbus-XXXXXX";
    if (!mkdtemp(dir)) return fail(std::string("mkdtemp: ") + strerror(errno));
    m_dir = dir;
  }
  m_socket = socket_path.empty() ? m_dir + "/bus_socket" : socket_path;
  if (m_socket.size() >= sizeof(sockaddr_un::sun_path)) return fail("socket path too long: " + m_socket);
  make_dirs(m_socket.substr(0, m_socket.rfind('/')));
  unlink(m_socket.c_str());

  // Everything the child needs is built before fork: only exec follows it.
  const std::vector<std::string> args = {"dbus-daemon", "--config-file=" + (config_file.empty() ? config_path() : config_file), "--address=" + address(),
                                         "--nofork", "--print-address", "--nosyslog"};
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const std::string log = m_dir + "/daemon.log";
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return fail(std::string("pipe: ") + strerror(errno));

  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    // A test process that dies without its destructors (a sanitizer halt, an
    // abort) takes its daemon along.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    int null = open("/dev/null", O_RDONLY);
    int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(err, 2);
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  if (m_pid < 0) {
    close(out[0]);
    return fail(std::string("fork: ") + strerror(errno));
  }

  // The daemon prints its address once it listens.
  std::string printed;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
  while (printed.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{out[0], POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buf[256];
    ssize_t n = read(out[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    printed.append(buf, static_cast<size_t>(n));
  }
  close(out[0]);
  if (printed.compare(0, address().size(), address()) != 0) return fail("no address printed (got '" + printed + "')");
  if (!accepts(m_socket)) return fail("socket does not accept connections: " + m_socket);
  return true;
}

void DBusDaemon::reap(int sig, int grace_ms) {
  if (m_pid <= 0) return;
  ::kill(m_pid, sig);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(grace_ms);
  int status;
  while (waitpid(m_pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(m_pid, SIGKILL);
      waitpid(m_pid, &status, 0);
      break;
    }
    usleep(5000);
  }
  m_pid = -1;
}

void DBusDaemon::kill() { reap(SIGKILL, 0); }

void DBusDaemon::stop() {
  reap(SIGTERM, 2000);
  if (!m_socket.empty()) unlink(m_socket.c_str());
}

}  // namespace tc_test
