// tc-bench-bridge: drives a serial bridge (socat or transparent-channel) from
// both ends and prints what it measured as "key value..." lines.
//
//   tc-bench-bridge compare --out FILE (--socat | --service -- CMD...)
//       echo round trips, idle cost, memory, paced throughput both ways
//   tc-bench-bridge hold --out FILE --serial N --lora M --dir DIR [--idle S] [--load S] -- CMD...
//       start-up time, memory, idle and loaded CPU of a bridge with many devices

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/peer_link.h"
#include "bench/proc_stats.h"

using namespace tc_bench;

namespace {

constexpr uint16_t kSocatPort = 7777;
constexpr uint16_t kServicePort = 5656;

inline uint8_t pattern(uint64_t off) { return static_cast<uint8_t>((off * 2654435761ULL) >> 13); }

void sleep_until(double t) {
  const double d = t - now_s();
  if (d > 0) usleep(static_cast<useconds_t>(d * 1e6));
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& log) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  return pid;
}

void stop(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  for (int i = 0; i < 300; ++i) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) return;
    usleep(10000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

bool wait_path(const std::string& path, double timeout_s) {
  const double end = now_s() + timeout_s;
  struct stat st;
  while (stat(path.c_str(), &st) != 0) {
    if (now_s() > end) return false;
    usleep(5000);
  }
  return true;
}

// Opens a device file the way a serial program does: raw, blocking.
int open_raw(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_NOCTTY);
  if (fd < 0) return -1;
  termios t{};
  tcgetattr(fd, &t);
  cfmakeraw(&t);
  tcsetattr(fd, TCSANOW, &t);
  return fd;
}

bool write_all(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t w = write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// Reads `n` bytes from a device file within `timeout_ms` of silence.
bool read_exact(int fd, uint8_t* p, size_t n, int timeout_ms) {
  while (n > 0) {
    pollfd pf{fd, POLLIN, 0};
    if (poll(&pf, 1, timeout_ms) <= 0) return false;
    const ssize_t r = read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// A thread whose body cannot let an exception out (it would end the program).
template <typename F>
std::thread guarded(F body) {
  return std::thread([body] {
    try {
      body();
    } catch (const std::exception& e) {
      fprintf(stderr, "tc-bench-bridge: %s\n", e.what());
    } catch (...) {
      fprintf(stderr, "tc-bench-bridge: unknown exception\n");
    }
  });
}

// One bridged link under test: the bridge's process, its device file, and the far end.
struct Bridge {
  virtual ~Bridge() = default;
  virtual pid_t pid() const = 0;
  // The device file and the far end of a healthy link named `role`; a broken one is replaced when possible.
  virtual bool link(const std::string& role, std::string& dev, PeerLink*& peer) = 0;
  virtual void keepalive() {}
};

class SocatBridge : public Bridge {
 public:
  SocatBridge(const std::string& dir, const std::string& log) : m_dir(dir), m_log(log), m_listener(kSocatPort) {}
  ~SocatBridge() override { stop(m_pid); }
  pid_t pid() const override { return m_pid; }
  bool link(const std::string& role, std::string& dev, PeerLink*& peer) override {
    if (m_peer && m_peer->alive() && role == m_role && waitpid(m_pid, nullptr, WNOHANG) == 0) {
      dev = m_dev;
      peer = m_peer.get();
      return true;
    }
    m_peer.reset();
    stop(m_pid);
    m_role = role;
    m_dev = m_dir + "/socat-" + role;
    m_pid = spawn({"socat", "PTY,link=" + m_dev + ",raw,echo=0", "TCP:127.0.0.1:" + std::to_string(kSocatPort)},
                  m_log);
    const int fd = m_listener.accept_one(5000);
    if (fd < 0 || !wait_path(m_dev, 5)) return false;
    m_peer.reset(new PeerLink(fd, false));
    dev = m_dev;
    peer = m_peer.get();
    return true;
  }

 private:
  std::string m_dir, m_log, m_role, m_dev;
  PeerListener m_listener;
  pid_t m_pid = -1;
  std::unique_ptr<PeerLink> m_peer;
};

// The service with devices dir/ttyRole, bridged to remote devices named after the role.
class ServiceBridge : public Bridge {
 public:
  ServiceBridge(const std::vector<std::string>& cmd, const std::string& dir, const std::string& log,
                const std::vector<std::string>& roles)
      : m_dir(dir), m_listener(kServicePort) {
    m_pid = spawn(cmd, log);
    const double end = now_s() + 20;
    while (m_links.size() < roles.size() && now_s() < end) {
      const int fd = m_listener.accept_one(1000);
      if (fd < 0) continue;
      std::unique_ptr<PeerLink> peer(new PeerLink(fd, true));
      if (peer->handshake(3000)) m_links[peer->device()] = std::move(peer);
    }
  }
  ~ServiceBridge() override { stop(m_pid); }
  pid_t pid() const override { return m_pid; }
  bool link(const std::string& role, std::string& dev, PeerLink*& peer) override {
    auto it = m_links.find(role);
    if (it == m_links.end() || !it->second->alive()) return false;
    dev = m_dir + "/tty-" + role;
    peer = it->second.get();
    return wait_path(dev, 5);
  }
  void keepalive() override {
    for (auto& l : m_links) l.second->send_keepalive();
  }

 private:
  std::string m_dir;
  PeerListener m_listener;
  pid_t m_pid = -1;
  std::map<std::string, std::unique_ptr<PeerLink>> m_links;
};

// Keeps framed links alive from a side thread while a test runs.
class KeepaliveThread {
 public:
  explicit KeepaliveThread(Bridge& b) : m_thread(guarded([this, &b] {
      double next = now_s() + 10;
      while (!m_stop.load()) {
        usleep(100000);
        if (now_s() >= next) {
          b.keepalive();
          next += 10;
        }
      }
    })) {}
  ~KeepaliveThread() {
    m_stop.store(true);
    m_thread.join();
  }

 private:
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

void echo_peer(PeerLink* peer, std::atomic<bool>& stop_flag) {
  std::vector<uint8_t> buf(256 * 1024);
  while (!stop_flag.load()) {
    const int n = peer->receive(buf.data(), buf.size(), 50);
    if (n < 0) return;
    if (n > 0 && !peer->send(buf.data(), static_cast<size_t>(n))) return;
  }
}

void run_echo(Bridge& bridge) {
  std::string dev;
  PeerLink* peer = nullptr;
  if (!bridge.link("echo", dev, peer)) {
    report("echo_error no link");
    return;
  }
  const int fd = open_raw(dev);
  std::atomic<bool> stop_flag{false};
  std::thread echo = guarded([&] { echo_peer(peer, stop_flag); });
  for (const size_t size : {size_t(1), size_t(64), size_t(1024)}) {
    std::vector<uint8_t> out(size), in(size);
    std::vector<double> rtt;
    const int rounds = 1000;
    bool ok = fd >= 0;
    for (int i = -50; i < rounds && ok; ++i) {
      for (size_t k = 0; k < size; ++k) out[k] = pattern(static_cast<uint64_t>(i) * 7 + k);
      const double t = now_s();
      ok = write_all(fd, out.data(), size) && read_exact(fd, in.data(), size, 3000) && in == out;
      if (i >= 0) rtt.push_back((now_s() - t) * 1e6);
    }
    if (!ok) {
      report("echo %zu failed", size);
      continue;
    }
    std::sort(rtt.begin(), rtt.end());
    report("echo %zu p50_us %.1f p99_us %.1f", size, rtt[rtt.size() / 2], rtt[rtt.size() * 99 / 100]);
  }
  stop_flag.store(true);
  echo.join();
  if (fd >= 0) close(fd);
}

// Wake-ups per second of each thread, busiest first.
std::string per_thread(const ProcSample& a, const ProcSample& b, double seconds) {
  std::vector<double> rates;
  for (const auto& t : b.thread_switches) {
    auto it = a.thread_switches.find(t.first);
    if (it != a.thread_switches.end()) rates.push_back(static_cast<double>(t.second - it->second) / seconds);
  }
  std::sort(rates.rbegin(), rates.rend());
  std::string text;
  for (double r : rates) text += (text.empty() ? "" : ",") + std::to_string(static_cast<int>(r + 0.5));
  return text;
}

// Small messages written every 2 ms with no answer from the far end: the
// case where a message can wait behind an unacknowledged one (Nagle's algorithm
// against delayed acknowledgements).  One-way latency, same clock both ends.
void run_stream(Bridge& bridge) {
  std::string dev;
  PeerLink* peer = nullptr;
  if (!bridge.link("echo", dev, peer)) {
    report("stream_error no link");
    return;
  }
  const int fd = open_raw(dev);
  if (fd < 0) return;
  const int count = 1000;
  std::thread writer = guarded([&] {
    const double t0 = now_s();
    for (int i = 0; i < count; ++i) {
      sleep_until(t0 + i * 0.002);
      double stamp = now_s();
      uint8_t msg[16] = {};
      memcpy(msg, &stamp, sizeof stamp);
      if (!write_all(fd, msg, sizeof msg)) return;
    }
  });
  std::vector<uint8_t> held;
  std::vector<uint8_t> buf(64 * 1024);
  std::vector<double> lat;
  while (static_cast<int>(lat.size()) < count) {
    const int n = peer->receive(buf.data(), buf.size(), 3000);
    if (n <= 0) break;
    const double now = now_s();
    held.insert(held.end(), buf.begin(), buf.begin() + n);
    size_t off = 0;
    for (; off + 16 <= held.size(); off += 16) {
      double stamp;
      memcpy(&stamp, &held[off], sizeof stamp);
      lat.push_back((now - stamp) * 1e6);
    }
    held.erase(held.begin(), held.begin() + static_cast<long>(off));
  }
  writer.join();
  close(fd);
  if (static_cast<int>(lat.size()) < count) {
    report("stream 16 failed");
    return;
  }
  std::sort(lat.begin(), lat.end());
  report("stream 16 p50_us %.1f p99_us %.1f max_us %.1f", lat[lat.size() / 2], lat[lat.size() * 99 / 100],
         lat.back());
}

void run_idle(pid_t pid, const char* key, double seconds) {
  const ProcSample a = sample_process(pid);
  usleep(static_cast<useconds_t>(seconds * 1e6));
  const ProcSample b = sample_process(pid);
  report("%s wakeups_per_s %.2f cpu_pct %.3f threads %d per_thread %s", key,
         static_cast<double>(b.ctx_switches - a.ctx_switches) / seconds, (b.run_s - a.run_s) * 100 / seconds,
         b.threads, per_thread(a, b, seconds).c_str());
}

void report_memory(pid_t pid, const char* key) {
  const ProcSample s = sample_process(pid);
  report("%s rss_kb %ld hwm_kb %ld rss_anon_kb %ld pss_kb %ld", key, s.rss_kb, s.hwm_kb, s.rss_anon_kb, s.pss_kb);
}

struct StepResult {
  bool intact = false;
  double mb_per_s = 0;
  double cpu_s_per_mb = 0;
};

// Device file -> far end at `rate` bytes/s.
StepResult upstream_step(Bridge& bridge, double rate) {
  StepResult r;
  std::string dev;
  PeerLink* peer = nullptr;
  if (!bridge.link("up", dev, peer)) return r;
  const int fd = open_raw(dev);
  if (fd < 0) return r;
  const uint64_t total = static_cast<uint64_t>(std::max(rate * 1.0, 256e3));
  const ProcSample before = sample_process(bridge.pid());
  const double t0 = now_s();
  std::thread writer = guarded([&] {
    std::vector<uint8_t> chunk(4096);
    for (uint64_t off = 0; off < total;) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), total - off));
      for (size_t k = 0; k < n; ++k) chunk[k] = pattern(off + k);
      sleep_until(t0 + static_cast<double>(off) / rate);
      if (!write_all(fd, chunk.data(), n)) return;
      off += n;
    }
  });
  std::vector<uint8_t> buf(256 * 1024);
  uint64_t got = 0;
  bool intact = true;
  while (got < total && intact) {
    const int n = peer->receive(buf.data(), buf.size(), 3000);
    if (n <= 0) {
      intact = false;
      break;
    }
    for (int k = 0; k < n && intact; ++k) intact = buf[static_cast<size_t>(k)] == pattern(got + static_cast<uint64_t>(k));
    got += static_cast<uint64_t>(n);
  }
  const double t1 = now_s();
  const ProcSample after = sample_process(bridge.pid());
  // A writer stuck on a full terminal is freed by closing it.
  if (!intact) close(fd);
  writer.join();
  if (intact) close(fd);
  r.intact = intact && got == total;
  r.mb_per_s = static_cast<double>(got) / 1e6 / (t1 - t0);
  r.cpu_s_per_mb = (after.run_s - before.run_s) / (static_cast<double>(got) / 1e6);
  return r;
}

// Far end -> device file at `rate` bytes/s.
StepResult downstream_step(Bridge& bridge, double rate) {
  StepResult r;
  std::string dev;
  PeerLink* peer = nullptr;
  if (!bridge.link("down", dev, peer)) return r;
  const int fd = open_raw(dev);
  if (fd < 0) return r;
  const uint64_t total = static_cast<uint64_t>(std::max(rate * 1.0, 256e3));
  const ProcSample before = sample_process(bridge.pid());
  const double t0 = now_s();
  std::atomic<bool> abort_flag{false};
  std::thread sender = guarded([&] {
    // One frame's worth per paced send, the way a peer reading a real port sends.
    std::vector<uint8_t> chunk(1468);
    for (uint64_t off = 0; off < total && !abort_flag.load();) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), total - off));
      for (size_t k = 0; k < n; ++k) chunk[k] = pattern(off + k);
      sleep_until(t0 + static_cast<double>(off) / rate);
      if (!peer->send(chunk.data(), n)) return;
      off += n;
    }
  });
  std::vector<uint8_t> buf(256 * 1024);
  uint64_t got = 0;
  bool intact = true;
  while (got < total && intact) {
    pollfd pf{fd, POLLIN, 0};
    if (poll(&pf, 1, 3000) <= 0) {
      intact = false;
      break;
    }
    const ssize_t n = read(fd, buf.data(), buf.size());
    if (n <= 0) {
      intact = false;
      break;
    }
    for (ssize_t k = 0; k < n && intact; ++k) intact = buf[static_cast<size_t>(k)] == pattern(got + static_cast<uint64_t>(k));
    got += static_cast<uint64_t>(n);
  }
  const double t1 = now_s();
  const ProcSample after = sample_process(bridge.pid());
  abort_flag.store(true);
  sender.join();
  close(fd);
  r.intact = intact && got == total && peer->alive();
  r.mb_per_s = static_cast<double>(got) / 1e6 / (t1 - t0);
  r.cpu_s_per_mb = (after.run_s - before.run_s) / (static_cast<double>(got) / 1e6);
  return r;
}

// Paces upwards until bytes are lost or the bridge cannot keep up with the pace.
void ramp(Bridge& bridge, const char* dir, StepResult (*step)(Bridge&, double)) {
  double best = 0;
  for (double mb = 0.0625; mb <= 2048; mb *= 2) {
    const StepResult r = step(bridge, mb * 1e6);
    report("%s step %g intact %d mb_per_s %.2f cpu_s_per_mb %.4f", dir, mb, r.intact ? 1 : 0, r.mb_per_s,
           r.cpu_s_per_mb);
    if (!r.intact) break;
    best = std::max(best, r.mb_per_s);
    if (r.mb_per_s < mb * 0.85) break;
  }
  report("%s lossless_mb_per_s %.2f", dir, best);
}

int compare(bool socat, const std::vector<std::string>& cmd, const std::string& dir) {
  std::unique_ptr<Bridge> bridge;
  if (socat) {
    bridge.reset(new SocatBridge(dir, dir + "/socat.log"));
  } else {
    bridge.reset(new ServiceBridge(cmd, dir, dir + "/service.log", {"echo", "up", "down"}));
  }
  KeepaliveThread keepalive(*bridge);
  std::string dev;
  PeerLink* peer = nullptr;
  if (!bridge->link("echo", dev, peer)) {
    report("error bridge_not_up");
    return 1;
  }
  {
    const int fd = open_raw(dev);
    usleep(500000);
    run_idle(bridge->pid(), "idle", 10);
    if (fd >= 0) close(fd);
  }
  run_echo(*bridge);
  run_stream(*bridge);
  report_memory(bridge->pid(), "memory");
  ramp(*bridge, "up", upstream_step);
  ramp(*bridge, "down", downstream_step);
  report_memory(bridge->pid(), "memory_after");
  return 0;
}

// ---- many devices in one process ----

int hold(int serial, int lora, const std::string& dir, double idle_s, double load_s,
         const std::vector<std::string>& cmd) {
  PeerListener listener(kServicePort);
  const double t0 = now_s();
  const pid_t pid = spawn(cmd, dir + "/service.log");
  std::vector<std::unique_ptr<PeerLink>> links;
  const double end = t0 + 120;
  while (static_cast<int>(links.size()) < serial && now_s() < end) {
    const int fd = listener.accept_one(1000);
    if (fd < 0) continue;
    std::unique_ptr<PeerLink> peer(new PeerLink(fd, true));
    if (peer->handshake(5000)) links.push_back(std::move(peer));
  }
  const double t_links = now_s();
  std::vector<std::string> serial_files, lora_files;
  for (int i = 0; i < serial; ++i) serial_files.push_back(dir + "/ser" + std::to_string(i));
  for (int i = 0; i < lora; ++i) lora_files.push_back(dir + "/lora" + std::to_string(i));
  bool files = true;
  for (const auto& f : serial_files) files = files && wait_path(f, std::max(1.0, end - now_s()));
  for (const auto& f : lora_files) files = files && wait_path(f, std::max(1.0, end - now_s()));
  const double t_ready = now_s();
  report("startup serial %d lora %d links_up %zu files %d links_s %.3f ready_s %.3f", serial, lora, links.size(),
         files ? 1 : 0, t_links - t0, t_ready - t0);

  std::atomic<bool> stop_flag{false};
  std::thread keepalive = guarded([&] {
    double next = now_s() + 10;
    while (!stop_flag.load()) {
      usleep(100000);
      if (now_s() < next) continue;
      next += 10;
      for (auto& l : links) l->send_keepalive();
    }
  });

  usleep(2000000);
  report_memory(pid, "memory");
  run_idle(pid, "idle", idle_s);

  if (load_s > 0) {
    std::vector<int> sfd, lfd;
    for (const auto& f : serial_files) sfd.push_back(open_raw(f));
    for (const auto& f : lora_files) lfd.push_back(open_raw(f));
    const int udp = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(18099);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::atomic<uint64_t> serial_sent{0}, lora_sent{0}, serial_got{0}, lora_got{0};
    std::atomic<bool> load_stop{false};
    // 1 KB/s per device: 100 bytes every 100 ms per serial device, one 250-byte uplink every 250 ms per LoRa device.
    std::thread loader = guarded([&] {
      const double start = now_s();
      std::vector<uint8_t> bytes(100, 'x');
      std::string hex(500, 'a');
      for (long tick = 0; !load_stop.load(); ++tick) {
        sleep_until(start + static_cast<double>(tick) * 0.01);
        for (size_t i = static_cast<size_t>(tick % 10); i < sfd.size(); i += 10) {
          if (sfd[i] >= 0 && write(sfd[i], bytes.data(), bytes.size()) == 100) serial_sent += 100;
        }
        for (size_t i = static_cast<size_t>(tick % 25); i < lfd.size(); i += 25) {
          char eui[17];
          snprintf(eui, sizeof eui, "%016zx", i + 1);
          const std::string d = std::string("{\"devEui\":\"") + eui + "\",\"data\":\"" + hex +
                                "\",\"fport\":5,\"mtype\":2}";
          if (sendto(udp, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) > 0) lora_sent += 250;
        }
      }
    });
    std::thread reader = guarded([&] {
      std::vector<pollfd> pf;
      for (auto& l : links) pf.push_back({l->fd(), POLLIN, 0});
      const size_t nlinks = pf.size();
      for (int fd : lfd) pf.push_back({fd, POLLIN, 0});
      std::vector<uint8_t> buf(256 * 1024);
      while (!load_stop.load()) {
        if (poll(pf.data(), pf.size(), 100) <= 0) continue;
        for (size_t i = 0; i < pf.size(); ++i) {
          if (!(pf[i].revents & POLLIN)) continue;
          if (i < nlinks) {
            const int n = links[i]->receive(buf.data(), buf.size(), 0);
            if (n > 0) serial_got += static_cast<uint64_t>(n);
            if (n < 0) pf[i].fd = -1;
          } else {
            const ssize_t n = read(pf[i].fd, buf.data(), buf.size());
            if (n > 0) lora_got += static_cast<uint64_t>(n);
          }
        }
      }
    });
    usleep(1000000);
    const ProcSample a = sample_process(pid);
    const uint64_t s0 = serial_got.load(), l0 = lora_got.load();
    usleep(static_cast<useconds_t>(load_s * 1e6));
    const ProcSample b = sample_process(pid);
    const uint64_t s1 = serial_got.load(), l1 = lora_got.load();
    load_stop.store(true);
    loader.join();
    usleep(500000);
    reader.join();
    report("load cpu_pct %.3f wakeups_per_s %.2f serial_kb_per_s %.1f lora_kb_per_s %.1f serial_sent_kb %.1f "
           "serial_got_kb %.1f lora_sent_kb %.1f lora_got_kb %.1f",
           (b.run_s - a.run_s) * 100 / load_s, static_cast<double>(b.ctx_switches - a.ctx_switches) / load_s,
           static_cast<double>(s1 - s0) / 1e3 / load_s, static_cast<double>(l1 - l0) / 1e3 / load_s,
           static_cast<double>(serial_sent.load()) / 1e3, static_cast<double>(serial_got.load()) / 1e3,
           static_cast<double>(lora_sent.load()) / 1e3, static_cast<double>(lora_got.load()) / 1e3);
    report_memory(pid, "memory_load");
    for (int fd : sfd) if (fd >= 0) close(fd);
    for (int fd : lfd) if (fd >= 0) close(fd);
    close(udp);
  }
  stop_flag.store(true);
  keepalive.join();
  stop(pid);
  return 0;
}

int usage() {
  fprintf(stderr,
          "usage: tc-bench-bridge compare --dir DIR [--out FILE] (--socat | -- SERVICE...)\n"
          "       tc-bench-bridge hold --dir DIR [--out FILE] --serial N --lora M [--idle S] [--load S] -- SERVICE...\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc < 2) return usage();
  const std::string command = argv[1];
  std::string dir = "/tmp", out;
  bool socat = false;
  int serial = 0, lora = 0;
  double idle_s = 10, load_s = 10;
  std::vector<std::string> cmd;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has = i + 1 < argc;
    if (a == "--") {
      for (++i; i < argc; ++i) cmd.push_back(argv[i]);
    } else if (a == "--socat") {
      socat = true;
    } else if (a == "--dir" && has) {
      dir = argv[++i];
    } else if (a == "--out" && has) {
      out = argv[++i];
    } else if (a == "--serial" && has) {
      serial = atoi(argv[++i]);
    } else if (a == "--lora" && has) {
      lora = atoi(argv[++i]);
    } else if (a == "--idle" && has) {
      idle_s = atof(argv[++i]);
    } else if (a == "--load" && has) {
      load_s = atof(argv[++i]);
    } else {
      return usage();
    }
  }
  if (!out.empty() && !tc_bench::open_report(out.c_str(), "w")) return 1;
  try {
    if (command == "compare" && (socat || !cmd.empty())) return compare(socat, cmd, dir);
    if (command == "hold" && !cmd.empty()) return hold(serial, lora, dir, idle_s, load_s, cmd);
  } catch (const std::exception& e) {
    fprintf(stderr, "tc-bench-bridge: %s\n", e.what());
    return 1;
  }
  return usage();
}
