// tc-bench-bus: how fast the service answers on the bus, starts and stops,
// and how often it wakes while idle.  Results go out as "key value ..." lines.
//
//   tc-bench-bus calls --label L --dest NAME --path PATH --iface IFACE --member M [--arg TEXT]... [--count N]
//       round trips of one method call from a plain libdbus client
//   tc-bench-bus agent --label L --key KEY [--count N]
//       get_config round trips through the service's own configuration agent
//   tc-bench-bus life --label L --ready TEXT --log FILE [--idle S] -- SERVICE...
//       exec to the ready line, idle wake-ups and CPU, SIGTERM to exit
// Every command takes --bus ADDRESS (default: the service's bus) and --out FILE.

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/proc_stats.h"
#include "common/log/log.h"
#include "component/config_agent.h"
#include "component/dbus_channel.h"

using tc_bench::now_s;
using tc_bench::report;
using tc_bench::ProcSample;
using tc_bench::sample_process;

namespace {

struct Options {
  std::string bus = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
  std::string label, dest, path, iface, member, key, ready, log;
  std::vector<std::string> args;
  std::vector<std::string> command;
  int count = 1000;
  double idle_s = 10;
};

constexpr int kWarmUp = 50;

// p50, p99 and max of round trips in microseconds.
void report_latency(const std::string& label, std::vector<double> us, int failed) {
  if (us.empty()) {
    report("%s failed %d", label.c_str(), failed);
    return;
  }
  std::sort(us.begin(), us.end());
  report("%s count %zu failed %d p50_us %.1f p99_us %.1f max_us %.1f", label.c_str(), us.size(), failed,
         us[us.size() / 2], us[us.size() * 99 / 100], us.back());
}

int calls(const Options& o) {
  DBusError error;
  dbus_error_init(&error);
  DBusConnection* c = dbus_connection_open_private(o.bus.c_str(), &error);
  if (!c || !dbus_bus_register(c, &error)) {
    fprintf(stderr, "tc-bench-bus: %s\n", error.message ? error.message : "no bus");
    return 1;
  }
  std::vector<double> us;
  int failed = 0;
  for (int i = 0; i < kWarmUp + o.count; ++i) {
    DBusMessage* call = dbus_message_new_method_call(o.dest.c_str(), o.path.c_str(), o.iface.c_str(), o.member.c_str());
    for (const std::string& a : o.args) {
      const char* text = a.c_str();
      dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    }
    const double t0 = now_s();
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(c, call, 3000, &error);
    const double t1 = now_s();
    dbus_message_unref(call);
    if (!reply) {
      ++failed;
      dbus_error_free(&error);
      continue;
    }
    dbus_message_unref(reply);
    if (i >= kWarmUp) us.push_back((t1 - t0) * 1e6);
  }
  report_latency(o.label, us, failed);
  dbus_connection_close(c);
  dbus_connection_unref(c);
  return 0;
}

int agent(const Options& o) {
  using namespace Zentrova::Iot::Component;
  CDBusChannel channel(o.bus, "iot.gateway.tcbench", "/iot/gateway/tcbench", {});
  if (channel.start() != 1) return 1;
  int failed = 0;
  std::vector<double> us;
  {
    CConfigAgent configAgent(&channel, "iot.gateway.tcbench");
    for (int i = 0; i < kWarmUp + o.count; ++i) {
      std::string value;
      const double t0 = now_s();
      const int32_t result = configAgent.get_config(o.key, value, 3000);
      const double t1 = now_s();
      if (result != 0 && result != CConfigAgent::kNoValue) {
        ++failed;
        continue;
      }
      if (i >= kWarmUp) us.push_back((t1 - t0) * 1e6);
    }
  }
  channel.stop();
  report_latency(o.label, us, failed);
  return 0;
}

// Wake-ups per second of each thread, in the order the threads were started.
std::string per_thread(const ProcSample& a, const ProcSample& b, double seconds) {
  std::string text;
  for (const auto& t : b.thread_switches) {
    auto it = a.thread_switches.find(t.first);
    if (it == a.thread_switches.end()) continue;
    char rate[32];
    snprintf(rate, sizeof rate, "%s%.2f", text.empty() ? "" : ",", static_cast<double>(t.second - it->second) / seconds);
    text += rate;
  }
  return text;
}

// Reads the service's log from `fd` into `log` until a line holds `ready`
// or `until` passes; true when seen.
bool wait_line(int fd, int log, const std::string& ready, double until, std::string& seen) {
  char buf[4096];
  while (seen.find(ready) == std::string::npos) {
    const double left = until - now_s();
    if (left <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0) continue;
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    if (write(log, buf, static_cast<size_t>(n)) < 0) return false;
    seen.append(buf, static_cast<size_t>(n));
  }
  return true;
}

// Copies what the service still writes into its log until it closes stderr.
void drain(int fd, int log) {
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) {
    if (write(log, buf, static_cast<size_t>(n)) < 0) return;
  }
}

int life(const Options& o) {
  int out[2];
  if (pipe(out) != 0) return 1;
  const int log = open(o.log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  const double t0 = now_s();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(out[1], 2);
    close(out[0]);
    close(out[1]);
    std::vector<char*> argv;
    for (const std::string& a : o.command) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  std::string seen;
  const bool ready = wait_line(out[0], log, o.ready, t0 + 30, seen);
  const double t_ready = now_s();
  // Keep the pipe drained so that the service never blocks on its log.
  const pid_t reader = fork();
  if (reader == 0) {
    drain(out[0], log);
    _exit(0);
  }
  if (!ready) {
    report("%s error not_ready", o.label.c_str());
  } else {
    report("%s startup_ms %.1f", o.label.c_str(), (t_ready - t0) * 1e3);
    usleep(2000000);
    const ProcSample a = sample_process(pid);
    usleep(static_cast<useconds_t>(o.idle_s * 1e6));
    const ProcSample b = sample_process(pid);
    report("%s idle wakeups_per_s %.2f cpu_pct %.4f threads %d per_thread %s", o.label.c_str(),
           static_cast<double>(b.ctx_switches - a.ctx_switches) / o.idle_s, (b.run_s - a.run_s) * 100 / o.idle_s,
           b.threads, per_thread(a, b, o.idle_s).c_str());
  }
  const double t_stop = now_s();
  kill(pid, SIGTERM);
  int status = 0;
  bool ended = false;
  while (!ended && now_s() < t_stop + 10) {
    ended = waitpid(pid, &status, WNOHANG) == pid;
    if (!ended) usleep(200);
  }
  const double t_end = now_s();
  if (!ended) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  report("%s stop_ms %.1f exit %d", o.label.c_str(), (t_end - t_stop) * 1e3,
         ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  waitpid(reader, nullptr, 0);
  close(out[0]);
  close(log);
  return ready ? 0 : 1;
}

int usage() {
  fprintf(stderr,
          "usage: tc-bench-bus calls --label L --dest NAME --path PATH --iface IFACE --member M [--arg TEXT]... "
          "[--count N]\n"
          "       tc-bench-bus agent --label L --key KEY [--count N]\n"
          "       tc-bench-bus life --label L --ready TEXT --log FILE [--idle S] -- SERVICE...\n"
          "       (each also takes --bus ADDRESS and --out FILE)\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  Options o;
  std::string out;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has = i + 1 < argc;
    if (a == "--") {
      o.command.assign(argv + i + 1, argv + argc);
      break;
    }
    if (!has) return usage();
    const std::string v = argv[++i];
    if (a == "--bus") o.bus = v;
    else if (a == "--out") out = v;
    else if (a == "--label") o.label = v;
    else if (a == "--dest") o.dest = v;
    else if (a == "--path") o.path = v;
    else if (a == "--iface") o.iface = v;
    else if (a == "--member") o.member = v;
    else if (a == "--arg") o.args.push_back(v);
    else if (a == "--key") o.key = v;
    else if (a == "--ready") o.ready = v;
    else if (a == "--log") o.log = v;
    else if (a == "--count") o.count = atoi(v.c_str());
    else if (a == "--idle") o.idle_s = atof(v.c_str());
    else return usage();
  }
  if (!out.empty() && !tc_bench::open_report(out.c_str(), "a")) return 1;
  log_init("tc-bench-bus", 0, 0, 2);
  if (command == "calls" && !o.member.empty()) return calls(o);
  if (command == "agent" && !o.key.empty()) return agent(o);
  if (command == "life" && !o.command.empty() && !o.ready.empty() && !o.log.empty()) return life(o);
  return usage();
}
