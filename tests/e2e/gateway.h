#pragma once
// One gateway for one end-to-end test, every part a real program: a message
// bus at the service's fixed address, the development configuration manager
// seeded with the test's keys, the LoRa simulator, a serial peer, and the
// built service.  Device files go to a directory of the test's own.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/service/lora_test_support.h"
#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"

namespace e2e {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlowdown = 3;
#else
constexpr int kSlowdown = 1;
#endif

// Shutdown never waits long: each thread stops within 3 s, and a healthy
// service needs far less, so this bound catches a hang or a stuck thread.
constexpr int kShutdownBoundMs = 6000 * kSlowdown;

// Service log texts the tests wait for.
extern const char* const kStartLine;
extern const char* const kReadyLine;
extern const char* const kExitLine;
extern const char* const kDisconnectLine;

struct ExitResult {
  bool exited = false;
  int code = -1;
  int64_t ms = 0;  // from the (last) signal to the end of the process
};

class Gateway {
 public:
  using Keys = std::map<std::string, std::string>;

  Gateway();
  // Kills whatever still runs; removes the device directory.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  // A path in the test's own directory.
  std::string path(const std::string& name) const { return m_dir.file(name); }

  // Each start waits until the part is ready; on false, error() says why.
  bool start_bus();
  // SIGKILL: the bus vanishes at once.
  void kill_bus() { m_bus.kill(); }
  // "tc-config serve --store FILE", FILE holding `keys`.
  bool start_manager(const Keys& keys);
  bool start_lora_sim(const std::vector<std::string>& options = {});
  // "tc-serial-peer --bind ip --keepalive 1 --allow /dev/pts/* OPTIONS";
  // peers are numbered in the order they start.
  bool start_serial_peer(const std::string& ip, const std::vector<std::string>& options = {});
  // Starts the service without waiting for anything; `wrapper` (a command
  // that runs the rest of its line) goes in front of it.
  bool start_service(const std::vector<std::string>& wrapper = {});
  bool wait_ready();
  // Bus, manager, LoRa simulator, serial peer on 127.0.0.2, then the service,
  // until it reports its start-up done.
  bool start_all(const Keys& keys, const std::vector<std::string>& sim_options = {});
  const std::string& error() const { return m_error; }

  tc_test::ChildProcess& service() { return *m_service; }
  tc_test::ChildProcess& manager() { return *m_manager; }
  tc_test::ChildProcess& lora_sim() { return *m_lora_sim; }
  tc_test::ChildProcess& serial_peer(size_t i = 0) { return *m_serial_peers.at(i); }

  // A method call on the service's object through dbus-send; the printed
  // reply (header line included), or nothing when dbus-send failed.
  std::optional<std::string> call(const std::string& member);
  // The string that "serial_port_connect_status" returns.
  std::optional<std::string> status();
  // Polls the status until it equals `expected`; the last answer otherwise.
  bool wait_status(const std::string& expected, int timeout_ms, std::string* last);
  // "tc-config set KEY VALUE" as a user would type it; the exit status.
  int set_config(const std::string& key, const std::string& value);

  // Waits until the service's main thread (or, with `main` false, any other
  // thread) sleeps in system call `number` (from /proc), so that what the
  // test does next finds it inside that call.
  bool wait_thread_in(long number, int timeout_ms, bool main = true);

  // Sends `sig` and waits for the service to end.
  ExitResult stop_service(int sig);
  // Waits for the service to end on its own; the time counts from now.
  ExitResult wait_service_exit();

 private:
  bool fail(const std::string& why);
  ExitResult wait_exit_since(std::chrono::steady_clock::time_point since);

  lora_test::TempDir m_dir;
  tc_test::DBusDaemon m_bus;
  std::unique_ptr<tc_test::ChildProcess> m_manager;
  std::unique_ptr<tc_test::ChildProcess> m_lora_sim;
  std::vector<std::unique_ptr<tc_test::ChildProcess>> m_serial_peers;
  std::unique_ptr<tc_test::ChildProcess> m_service;
  std::string m_error;
};

// SIGTERM, then exit status 0 within the shutdown bound (gtest expectations).
void expect_bounded_stop(Gateway& gw);

// A line of "serial_port_connect_status": green when connected, else yellow.
std::string status_line(const std::string& local, const std::string& ip, const std::string& remote, bool connected);

// Index of the first line from `from` on that contains `text`, or -1.
int find_line(const std::vector<std::string>& lines, const std::string& text, int from = 0);

// One item of "gw_tc_serial_devices" (115200 8N1, no flow control).
std::string serial_device(const std::string& local, const std::string& ip, const std::string& remote);
// One item of "gw_tc_loralan_devices" with ABP keys derived from the EUI.
std::string lora_device(const std::string& file, const std::string& eui);
// Items joined into a JSON array.
std::string json_array(const std::vector<std::string>& items);

}  // namespace e2e
