#pragma once
// One gateway for one end-to-end test, every part a real program: a message
// bus at the service's fixed address, the development configuration manager
// seeded with the test's keys, the LoRa simulator, serial peers, and the
// built service.  Device files go to a directory of the test's own.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/dbus_daemon.h"
#include "tests/support/device_file.h"

namespace e2e {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlowdown = 3;
#else
constexpr int kSlowdown = 1;
#endif

constexpr int kWaitMs = 10000 * kSlowdown;
// Shutdown never waits long: each thread stops within 3 s, and a healthy
// service needs far less, so this bound catches a hang or a stuck thread.
constexpr int kShutdownBoundMs = 6000 * kSlowdown;

extern const char* const kEui;
extern const char* const kRf;
extern const char* const kReadyLine;

using tc_test::DeviceFile;
using tc_test::path_exists;

// The remote gateway's serial port, played by a pseudo-terminal: the serial
// peer opens the slave by name, the test holds the master (non-blocking), the
// far end of the cable.
class RemotePort : public DeviceFile {
 public:
  RemotePort() : RemotePort(open_pair()) {}
  const std::string& path() const { return m_path; }

 private:
  static std::pair<int, std::string> open_pair();
  explicit RemotePort(std::pair<int, std::string> pair) : DeviceFile(pair.first), m_path(std::move(pair.second)) {}
  std::string m_path;
};

struct ExitResult {
  bool exited = false;
  int code = -1;
  int64_t ms = 0;  // from the (last) signal to the end of the process
};

class Gateway {
 public:
  using Keys = std::map<std::string, std::string>;

  std::string path(const std::string& name) const { return m_dir.file(name); }

  // Each start waits until the part is ready; on false, error() says why.
  bool start_bus(const std::string& config_file = "");
  void kill_bus() { m_bus.kill(); }
  // "tc-config serve --store FILE", FILE holding `keys`.
  bool start_manager(const Keys& keys);
  bool start_lora_sim(const std::vector<std::string>& options = {});
  // "tc-serial-peer --bind IP --keepalive 1 OPTIONS"; by default it allows
  // the tests' remote ports, pseudo-terminals.
  bool start_serial_peer(const std::string& ip, const std::vector<std::string>& options = {"--allow", "/dev/pts/*"});
  // Starts the service without waiting for anything; `wrapper` (a command
  // that runs the rest of its line) goes in front of it.
  bool start_service(const std::vector<std::string>& wrapper = {});
  bool wait_ready();
  // Bus, manager, LoRa simulator, serial peer on 127.0.0.2, then the service,
  // until it reports its start-up done.
  bool start_all(const Keys& keys);
  const std::string& error() const { return m_error; }

  tc_test::ChildProcess& service() { return *m_service; }
  tc_test::ChildProcess& manager() { return *m_manager; }
  tc_test::ChildProcess& lora_sim() { return *m_lora_sim; }
  tc_test::ChildProcess& serial_peer(size_t i = 0) { return *m_serial_peers.at(i); }

  // The string that "serial_port_connect_status" returns ("tc-status --links").
  std::optional<std::string> status();
  // Until the status is `expected`; on failure, the last one seen.
  testing::AssertionResult wait_status(const std::string& expected, int timeout_ms = kWaitMs);
  // "tc-config set KEY VALUE" as a user would type it; the exit status.
  int set_config(const std::string& key, const std::string& value);

  // Waits until the service's main thread (or, with `main` false, any other
  // thread) sleeps in system call `number`.
  bool wait_thread_in(long number, bool main = true);

  // Sends `sig` and waits for the service to end.  Either way every line the
  // service printed is checked for the logger's prefix (gtest expectations).
  ExitResult stop_service(int sig);
  // Waits for the service to end on its own; the time counts from now.
  ExitResult wait_service_exit();

 private:
  bool fail(const std::string& why);
  // Starts `argv` and `options` into `slot` and waits for the `ready` line.
  bool start(std::unique_ptr<tc_test::ChildProcess>& slot, std::vector<std::string> argv,
             const std::vector<std::string>& options, const char* ready);
  ExitResult wait_exit_since(std::chrono::steady_clock::time_point since);

  tc_test::TempDir m_dir;
  tc_test::DBusDaemon m_bus;
  std::unique_ptr<tc_test::ChildProcess> m_manager, m_lora_sim;
  std::vector<std::unique_ptr<tc_test::ChildProcess>> m_serial_peers;
  std::unique_ptr<tc_test::ChildProcess> m_service;
  std::string m_error;
};

// SIGTERM, then exit status 0 within the shutdown bound (gtest expectations).
void expect_bounded_stop(Gateway& gw);

// Runs a command to its end (exit status 0 expected); its output.
std::string run(const std::vector<std::string>& argv);

// A line of "serial_port_connect_status": green when connected, else yellow.
std::string status_line(const std::string& local, const std::string& ip, const std::string& remote, bool connected);

// One item of "gw_tc_serial_devices"; `bits` as in "8N1", `flow` 1 for RTS/CTS.
std::string serial_device(const std::string& local, const std::string& ip, const std::string& remote,
                          int baud = 115200, const char* bits = "8N1", int flow = 0);
// One item of "gw_tc_loralan_devices" with ABP keys derived from the EUI.
std::string lora_device(const std::string& file, const std::string& eui);
std::string json_array(const std::vector<std::string>& items);
std::string hex(const std::string& bytes);

}  // namespace e2e
