// Soak: the built service under steady serial and LoRa traffic, serial peers
// that fail on purpose, and a configuration change every few seconds; then
// the bytes, the descriptors and the memory are checked.
//
// Every byte travels in numbered records that can be re-made from their
// stream and number, so the reader knows each one arrived whole, in order, or
// not at all.  Two devices sit on a clean peer and must lose nothing, although
// the program on the gateway stops reading one of them and the far end the
// other, for seconds at a time; the others sit on a peer that drops links,
// stalls its keep-alives and sends garbage, and may lose records only in one
// run per link drop.
//
//   TC_SOAK_SECONDS  seconds of load: default 30, 15 under a sanitizer,
//                    rounded up to a whole cycle of changes.
//   TC_SOAK_DEVICES  serial devices: default 8, 4 under a sanitizer.

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "tests/e2e/gateway.h"

using namespace e2e;

namespace {

using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kDefaultSeconds = 15, kDefaultDevices = 4;
// ASan's quarantine and TSan's shadow memory hide all but gross growth; the
// ASan build's leak check is LeakSanitizer at the service's exit.
constexpr int kRssSlackKb = 64 * 1024;
#else
constexpr int kDefaultSeconds = 30, kDefaultDevices = 8;
// Healthy runs come back within 8 kB of the baseline; the rest is room for
// glibc's lazily trimmed per-thread arenas.  A leak per frame crosses it
// within seconds.
constexpr int kRssSlackKb = 512;
#endif

constexpr double kRate = 92160;  // bytes per second: 921600 baud, 8N1
constexpr size_t kRecord = 61;   // odd, so records straddle frames and reads everywhere
constexpr int kCleanDevices = 2;
constexpr int kPauseS = 5, kCycleS = 10;  // pausing readers stop kPauseS in every kCycleS

int env_int(const char* name, int fallback) {
  const char* text = std::getenv(name);
  return text && std::atoi(text) > 0 ? std::atoi(text) : fallback;
}

// Magic, number (little-endian), then bytes that follow from stream and number.
std::string make_record(uint32_t stream, uint32_t seq) {
  std::string r = "\xC3\x3C" + std::string(kRecord - 2, '\0');
  for (int i = 0; i < 4; ++i) r[2 + i] = static_cast<char>(seq >> (8 * i));
  uint32_t x = seq * 2654435761u ^ (stream + 1) * 40503u;
  for (size_t i = 6; i < kRecord; ++i) {
    x = x * 1103515245u + 12345u;
    r[i] = static_cast<char>(x >> 24);
  }
  return r;
}

// What arrived of one stream: whole records in rising order, runs of lost
// records ("gaps"), bytes that belong to no whole record ("stray").
struct Checker {
  uint32_t stream = 0, next = 0;
  std::string buf;
  uint64_t records = 0, stray = 0, reordered = 0, gaps = 0;
  bool in_gap = false;

  void feed(const char* data, size_t n) {
    buf.append(data, n);
    size_t at = 0;
    while (buf.size() - at >= kRecord) {
      uint32_t seq = 0;
      for (int i = 3; i >= 0; --i) seq = (seq << 8) | static_cast<uint8_t>(buf[at + 2 + i]);
      if (buf.compare(at, kRecord, make_record(stream, seq)) != 0) {
        gaps += !in_gap;
        in_gap = true;
        ++stray;
        ++at;
        continue;
      }
      at += kRecord;
      if (seq < next) {
        ++reordered;
        continue;
      }
      gaps += seq > next && !in_gap;
      next = seq + 1;
      ++records;
      in_gap = false;
    }
    buf.erase(0, at);
  }
};

// One direction of one device: records written to `out` (none: written by
// the main thread), read from `in`.
struct Stream {
  Stream(uint32_t id, int out_fd, int in_fd) : out(out_fd), in(in_fd) { checker.stream = id; }
  const int out, in;
  uint32_t sent = 0;
  bool pauses = false;
  std::string pending;
  uint64_t held_back = 0;  // bytes not made: `out` stayed full
  Checker checker;
};

enum Phase { kLoad, kDrain, kDone };

// Under load, makes records at the paced rate and writes them without
// blocking, and reads every stream, but pausing readers now and then; in the
// drain, what was held back goes out and is read.  A master whose slave is
// closed (the peer is between connections) is left alone for a moment.
void pump(std::vector<std::unique_ptr<Stream>>& streams, const std::atomic<int>& phase) {
  const auto start = Clock::now();
  auto last = start;
  std::vector<double> credit(streams.size(), 0);
  std::vector<Clock::time_point> quiet_until(streams.size());
  std::vector<pollfd> fds(streams.size());
  char chunk[65536];
  while (phase != kDone) {
    const auto now = Clock::now();
    const bool load = phase == kLoad;
    const double due = load ? kRate * std::chrono::duration<double>(now - last).count() : 0;
    const bool pause = load && std::chrono::duration_cast<std::chrono::seconds>(now - start).count() % kCycleS >=
                                   kCycleS - kPauseS;
    last = now;
    for (size_t i = 0; i < streams.size(); ++i) {
      Stream& s = *streams[i];
      for (credit[i] += due; s.out >= 0 && credit[i] >= kRecord; credit[i] -= kRecord) {
        if (s.pending.size() < 64 * kRecord) {
          s.pending += make_record(s.checker.stream, s.sent++);
        } else {
          s.held_back += kRecord;
        }
      }
      const ssize_t n = s.pending.empty() ? 0 : write(s.out, s.pending.data(), s.pending.size());
      if (n > 0) s.pending.erase(0, static_cast<size_t>(n));
      fds[i] = {now < quiet_until[i] || (pause && s.pauses) ? -1 : s.in, POLLIN, 0};
    }
    if (poll(fds.data(), fds.size(), 5) <= 0) continue;
    for (size_t i = 0; i < streams.size(); ++i) {
      const ssize_t n = fds[i].revents ? read(streams[i]->in, chunk, sizeof chunk) : -1;
      if (n > 0) {
        streams[i]->checker.feed(chunk, static_cast<size_t>(n));
      } else if (fds[i].revents && (n == 0 || errno != EAGAIN)) {
        quiet_until[i] = Clock::now() + std::chrono::milliseconds(20);
      }
    }
  }
}

struct Usage { int tcp = 0, others = 0, rss_anon_kb = -1; };

// The service's TCP sockets (from its namespace's table), its other
// descriptors, and its resident anonymous memory.
Usage usage(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  std::set<std::string> tcp_inodes;
  std::ifstream table(proc + "/net/tcp");
  std::string line, field;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    for (int i = 0; i < 10; ++i) fields >> field;  // the tenth is the inode ("uid" in the heading)
    tcp_inodes.insert("socket:[" + field + "]");
  }
  Usage u;
  if (DIR* dir = opendir((proc + "/fd").c_str())) {
    while (dirent* entry = readdir(dir)) {
      char target[256] = {};
      const std::string link = proc + "/fd/" + entry->d_name;
      if (entry->d_name[0] == '.' || readlink(link.c_str(), target, sizeof target - 1) <= 0) continue;
      ++(tcp_inodes.count(target) ? u.tcp : u.others);
    }
    closedir(dir);
  }
  std::ifstream status(proc + "/status");
  while (std::getline(status, line)) {
    if (line.rfind("RssAnon:", 0) == 0) u.rss_anon_kb = std::atoi(line.c_str() + 8);
  }
  return u;
}

TEST(Soak, BytesStayWholeAndNothingLeaksUnderLoadFaultsAndChanges) {
  const int seconds = env_int("TC_SOAK_SECONDS", kDefaultSeconds);
  const int devices = std::max(env_int("TC_SOAK_DEVICES", kDefaultDevices), kCleanDevices + 1);
  Gateway gw;
  std::vector<std::unique_ptr<RemotePort>> ports;
  std::vector<std::string> items, locals;
  for (int d = 0; d < devices; ++d) {
    ports.push_back(std::make_unique<RemotePort>());
    locals.push_back(gw.path("ttyS" + std::to_string(d)));
    items.push_back(serial_device(locals[d], d < kCleanDevices ? "127.0.0.2" : "127.0.0.3", ports[d]->path(), 921600));
  }
  const std::string lora = gw.path("lora1"), lora2 = gw.path("lora2"), churn = gw.path("ttyChurn");
  const std::string serial_list = json_array(items), lora_list = json_array({lora_device(lora, kEui)});
  items.push_back(serial_device(churn, "127.0.0.4", "ttyS9"));
  // A cycle of changes that leaves the loaded devices alone and ends where it began.
  const std::vector<std::pair<std::string, std::string>> changes = {
      {"gw_tc_serial_devices", json_array(items)},
      {"gw_tc_loralan_rf", R"({"class-c":{"RX2Frequency":"868500000","TxPower":"20","SF":"9"}})"},
      {"gw_tc_loralan_devices", json_array({lora_device(lora, kEui), lora_device(lora2, "70b3d5e75e000002")})},
      {"gw_tc_serial_devices", serial_list},
      {"gw_tc_loralan_rf", kRf},
      {"gw_tc_loralan_devices", lora_list}};
  ASSERT_TRUE(gw.start_bus() &&
              gw.start_manager({{"gw_tc_serial_devices", serial_list}, {"gw_tc_loralan_devices", lora_list},
                                {"gw_tc_loralan_rf", kRf}, {"gw_tc_loralan_down_packet_interval", "100"}}) &&
              gw.start_lora_sim() && gw.start_serial_peer("127.0.0.2") &&
              gw.start_serial_peer("127.0.0.3", {"--allow", "/dev/pts/*", "--fault", "drop,stall,garbage",
                                                 "--fault-chance", "3", "--seed", "7"}) &&
              gw.start_service() && gw.wait_ready())
      << gw.error();
  // Every link came up once (a faulty one may be down again already).
  ASSERT_TRUE(gw.service().wait_for_line("deal message, response code:0,", 2 * kWaitMs, devices))
      << gw.service().output();

  // Two streams per device, then the LoRa uplinks.
  std::vector<std::unique_ptr<Stream>> streams;
  std::vector<std::unique_ptr<DeviceFile>> files;
  for (int d = 0; d < devices; ++d) {
    files.push_back(std::make_unique<DeviceFile>(locals[d]));
    streams.push_back(std::make_unique<Stream>(2 * d, files.back()->fd(), ports[d]->fd()));
    streams.push_back(std::make_unique<Stream>(2 * d + 1, ports[d]->fd(), files.back()->fd()));
  }
  // The program on the gateway pauses on the first clean device, the far end on the second.
  streams[1]->pauses = streams[2]->pauses = true;
  files.push_back(std::make_unique<DeviceFile>(lora));
  streams.push_back(std::make_unique<Stream>(1000, -1, files.back()->fd()));
  Stream& uplinks = *streams.back();

  std::atomic<int> phase{kLoad};
  std::thread io(pump, std::ref(streams), std::cref(phase));

  // The first cycle of changes, one a second, is the warm-up: what the
  // service keeps for them is then part of the baseline.
  const auto start = Clock::now();
  auto next_change = start + std::chrono::seconds(1);
  Usage baseline;
  size_t step = 0;
  while (Clock::now() < start + std::chrono::seconds(seconds) || step % changes.size() != 0) {
    // (a service that dies shows its output at the stop below)
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    gw.lora_sim().write_input("uplink " + std::string(kEui) + " " + hex(make_record(1000, uplinks.sent++)) + " 7\n");
    if (Clock::now() < next_change) continue;
    const auto& change = changes[step++ % changes.size()];
    EXPECT_EQ(gw.set_config(change.first, change.second), 0) << change.first;
    // The loaded devices of the clean peer stay connected through it all.
    const std::string status = gw.status().value_or("(no answer)");
    for (int d = 0; d < kCleanDevices; ++d) {
      EXPECT_NE(status.find(status_line(locals[d], "127.0.0.2", ports[d]->path(), true)), std::string::npos) << status;
    }
    if (step == changes.size()) baseline = usage(gw.service().pid());
    next_change = Clock::now() + std::chrono::seconds(step < changes.size() ? 1 : 2);
  }
  const double load_s = std::chrono::duration<double>(Clock::now() - start).count();

  // Let what is in flight arrive, then settle.
  phase = kDrain;
  std::this_thread::sleep_for(std::chrono::milliseconds(3000 * kSlowdown));
  phase = kDone;
  io.join();
  const Usage after = usage(gw.service().pid());
  expect_bounded_stop(gw);
  files.clear();

  // Serial: whole records in order everywhere; on the clean peer every one,
  // on the faulty one no more runs of losses than links dropped.
  uint64_t steady_sent = 0, paused_sent = 0, faulty_arrived = 0, drops = 0;
  for (int d = 0; d < devices; ++d) {
    const size_t device_drops = gw.service().count_lines("deal error, " + locals[d] + " ");
    drops += device_drops;
    EXPECT_TRUE(d >= kCleanDevices || device_drops == 0) << locals[d] << " dropped its link";
    for (int i = 2 * d; i < 2 * d + 2; ++i) {
      const Stream& s = *streams[static_cast<size_t>(i)];
      const Checker& c = s.checker;
      const std::string name = locals[d] + (i % 2 ? " inward" : " outward");
      EXPECT_EQ(c.reordered, 0u) << name;
      if (d >= kCleanDevices) {
        EXPECT_LE(c.gaps, device_drops) << name;
        faulty_arrived += c.records;
        continue;
      }
      (s.pauses ? paused_sent : steady_sent) += s.sent;
      // A pause at the far end outlasts the buffers on the way back to the
      // device file (tc-serial-peer's window is small): its writer was held back.
      EXPECT_TRUE(!s.pauses || i % 2 || s.held_back >= kRate) << name << ": " << s.held_back;
      EXPECT_EQ(c.records, s.sent) << name << ": " << c.stray << " stray bytes";
      EXPECT_EQ(c.gaps + c.stray + c.buf.size(), 0u) << name;
    }
  }
  EXPECT_GT(faulty_arrived, 0u) << "nothing crossed the faulty peer";
  EXPECT_GT(drops, 0u) << "the faulty peer never dropped a link";
  // The clean links carried the paced rate, give or take the start, where
  // and while they were read.
  EXPECT_GE(steady_sent * kRecord, 0.9 * kRate * load_s * 2);
  EXPECT_GE(paused_sent * kRecord, 0.9 * kRate * load_s * 2 * (kCycleS - kPauseS) / kCycleS);

  // LoRa: every uplink whole and in order (downlinks in order are the LoRa tests').
  EXPECT_EQ(uplinks.checker.records, uplinks.sent);
  EXPECT_EQ(uplinks.checker.gaps + uplinks.checker.stray + uplinks.checker.reordered, 0u);

  // Each change took effect every cycle.
  const size_t cycles = step / changes.size();
  EXPECT_EQ(gw.service().count_lines("delete device, " + churn + " "), cycles);
  EXPECT_EQ(gw.service().count_lines("dev_file:" + lora2 + ","), 2 * cycles);
  EXPECT_EQ(gw.lora_sim().count_lines(R"(node set_rf RX2Frequency="868500000")"), cycles);

  // No leak: pseudo-terminals, epoll sets, the bus and UDP sockets are per
  // device or fixed, so exactly as before; TCP sockets come and go with the
  // faulty links, one per device at most.
  EXPECT_EQ(after.others, baseline.others);
  EXPECT_LE(after.tcp, devices);
  EXPECT_GT(baseline.rss_anon_kb, 0);
  EXPECT_LE(after.rss_anon_kb, baseline.rss_anon_kb + kRssSlackKb);
  std::printf("soak: %.0f s, %d devices, %zu changes, %d link drops; fds %d+%d TCP -> %d+%d; RssAnon %d -> %d kB\n",
              load_s, devices, step, static_cast<int>(drops), baseline.others, baseline.tcp, after.others, after.tcp,
              baseline.rss_anon_kb, after.rss_anon_kb);
}

}  // namespace
