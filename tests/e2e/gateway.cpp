#include "tests/e2e/gateway.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "common/json/json_text.h"

namespace e2e {

const char* const kStartLine = " I main: transparent-channel start.";
const char* const kReadyLine = " I start: start, transparent-channel startup success.";
const char* const kExitLine = " I main: transparent-channel exit.";
const char* const kDisconnectLine =
    " I stop: [iot.gateway.transparentchannel] disconnect from dbus server "
    "[unix:path=/tmp/var/run/mbusd/mbusd_socket] successs.";

namespace {

using tc_test::ChildProcess;

const std::string kService = TC_BINARY_DIR "/service/transparent-channel";
const std::string kConfigTool = TC_BINARY_DIR "/tools/tc-config/tc-config";
const std::string kLoraSim = TC_BINARY_DIR "/tools/tc-lora-sim/tc-lora-sim";
const std::string kSerialPeer = TC_BINARY_DIR "/tools/tc-serial-peer/tc-serial-peer";
const std::string kBusSocket = "/tmp/var/run/mbusd/mbusd_socket";
const std::string kServiceName = "iot.gateway.transparentchannel";
const std::string kObjectPath = "/iot/gateway/transparentchannel";
constexpr int kReadyMs = 10000 * kSlowdown;

// dbus-send from the PATH; ChildProcess runs programs by their full name.
std::string dbus_send() {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    const std::string candidate = dir + "/dbus-send";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "/usr/bin/dbus-send";
}

std::unique_ptr<ChildProcess> run(const std::vector<std::string>& argv) {
  return std::make_unique<ChildProcess>(argv);
}

}  // namespace

Gateway::Gateway() = default;

// Members go in reverse order: the service first, the bus last.
Gateway::~Gateway() = default;

bool Gateway::fail(const std::string& why) {
  m_error = why;
  return false;
}

bool Gateway::start_bus() {
  if (!m_bus.start(kBusSocket)) return fail("dbus-daemon: " + m_bus.error());
  return true;
}

bool Gateway::start_manager(const Keys& keys) {
  Json::Value store(Json::objectValue);
  for (const auto& [key, value] : keys) store[key] = value;
  std::string text;
  Zentrova::Iot::Platform::json_to_string(store, text, true);
  const std::string file = path("store.json");
  std::ofstream(file) << text << '\n';
  m_manager = run({kConfigTool, "serve", "--store", file});
  if (!m_manager->wait_for_line("ready on", kReadyMs)) return fail("tc-config serve: " + m_manager->output());
  return true;
}

bool Gateway::start_lora_sim(const std::vector<std::string>& options) {
  std::vector<std::string> argv{kLoraSim};
  argv.insert(argv.end(), options.begin(), options.end());
  m_lora_sim = run(argv);
  if (!m_lora_sim->wait_for_line("ready:", kReadyMs)) return fail("tc-lora-sim: " + m_lora_sim->output());
  return true;
}

bool Gateway::start_serial_peer(const std::string& ip, const std::vector<std::string>& options) {
  // The remote ports of the tests are pseudo-terminals, which the peer does not open by default.
  std::vector<std::string> argv{kSerialPeer, "--bind", ip, "--keepalive", "1", "--allow", "/dev/pts/*"};
  argv.insert(argv.end(), options.begin(), options.end());
  m_serial_peers.push_back(run(argv));
  if (!m_serial_peers.back()->wait_for_line("listening on", kReadyMs)) {
    return fail("tc-serial-peer: " + m_serial_peers.back()->output());
  }
  return true;
}

bool Gateway::start_service(const std::vector<std::string>& wrapper) {
  std::vector<std::string> argv = wrapper;
  argv.push_back(kService);
  m_service = run(argv);
  return m_service->started() || fail("transparent-channel did not start");
}

bool Gateway::wait_ready() {
  if (!m_service->wait_for_line(kReadyLine, 3 * kReadyMs)) return fail("no start-up:\n" + m_service->output());
  return true;
}

bool Gateway::start_all(const Keys& keys, const std::vector<std::string>& sim_options) {
  return start_bus() && start_manager(keys) && start_lora_sim(sim_options) && start_serial_peer("127.0.0.2") &&
         start_service() && wait_ready();
}

std::optional<std::string> Gateway::call(const std::string& member) {
  ChildProcess tool({dbus_send(), "--bus=unix:path=" + kBusSocket, "--print-reply", "--reply-timeout=5000",
                     "--dest=" + kServiceName, kObjectPath, kServiceName + "." + member});
  int status = 0;
  if (!tool.wait_exit(10000 * kSlowdown, &status) || tc_test::exit_code(status) != 0) return std::nullopt;
  return tool.output();
}

std::optional<std::string> Gateway::status() {
  const auto reply = call("serial_port_connect_status");
  if (!reply) return std::nullopt;
  // dbus-send prints the string raw between quotes, newlines included.
  const size_t open = reply->find("string \"");
  const size_t close = reply->rfind('"');
  if (open == std::string::npos || close < open + 8) return std::nullopt;
  return reply->substr(open + 8, close - open - 8);
}

bool Gateway::wait_status(const std::string& expected, int timeout_ms, std::string* last) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto answer = status();
    if (last) *last = answer.value_or("(no answer)");
    if (answer == expected) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

int Gateway::set_config(const std::string& key, const std::string& value) {
  // A value that would read as an option goes through standard input.
  const bool piped = !value.empty() && value[0] == '-';
  ChildProcess tool({kConfigTool, "set", key, piped ? "-" : value});
  if (piped) {
    tool.write_input(value);
    tool.close_input();
  }
  int status = 0;
  if (!tool.wait_exit(10000 * kSlowdown, &status)) return -1;
  return tc_test::exit_code(status);
}

bool Gateway::wait_thread_in(long number, int timeout_ms, bool main) {
  const std::string pid = std::to_string(m_service->pid());
  const std::string tasks = "/proc/" + pid + "/task";
  // "<number> <arguments...>" while in a call; "running" or "-1 ..." otherwise.
  const auto in_call = [number](const std::string& file) {
    long current = -1;
    return (std::ifstream(file) >> current) && current == number;
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (std::chrono::steady_clock::now() < end) {
    if (main) {
      if (in_call("/proc/" + pid + "/syscall")) return true;
    } else {
      std::error_code error;
      for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        if (task.path().filename() != pid && in_call(task.path().string() + "/syscall")) return true;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

ExitResult Gateway::stop_service(int sig) {
  const size_t caught = m_service->count_lines("caught ");
  auto sent = std::chrono::steady_clock::now();
  if (!m_service->signal(sig)) return ExitResult{};
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer's runtime now and then drops a signal that lands while a
  // thread enters a blocking call; one resend keeps the suite about the service.
  if (!m_service->wait_for_line("caught ", 2000, caught + 1)) {
    sent = std::chrono::steady_clock::now();
    m_service->signal(sig);
  }
#else
  (void)caught;
#endif
  return wait_exit_since(sent);
}

ExitResult Gateway::wait_service_exit() { return wait_exit_since(std::chrono::steady_clock::now()); }

ExitResult Gateway::wait_exit_since(std::chrono::steady_clock::time_point since) {
  ExitResult result;
  int status = 0;
  // Past the bound, so that a slow stop is measured rather than cut short.
  result.exited = m_service->wait_exit(kShutdownBoundMs + 15000, &status);
  result.ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
  if (result.exited) result.code = tc_test::exit_code(status);
  return result;
}

void expect_bounded_stop(Gateway& gw) {
  const ExitResult exit = gw.stop_service(SIGTERM);
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0) << gw.service().output();
  EXPECT_LT(exit.ms, kShutdownBoundMs);
}

std::string status_line(const std::string& local, const std::string& ip, const std::string& remote, bool connected) {
  return std::string(connected ? "\033[32m[" : "\033[33m[") + local + "] <--> [" + ip + ":" + remote + "], " +
         (connected ? "Connect Successfully" : "Connect Failed") + "\033[0m\n";
}

int find_line(const std::vector<std::string>& lines, const std::string& text, int from) {
  for (size_t i = static_cast<size_t>(std::max(from, 0)); i < lines.size(); ++i) {
    if (lines[i].find(text) != std::string::npos) return static_cast<int>(i);
  }
  return -1;
}

std::string serial_device(const std::string& local, const std::string& ip, const std::string& remote) {
  return "{\"local_device\":\"" + local + "\",\"remote_device\":{\"ip\":\"" + ip + "\",\"device\":\"" + remote +
         "\",\"baud_rate\":115200,\"data_bit\":8,\"stop_bit\":1,\"parity\":\"N\",\"flow_control\":0}}";
}

std::string lora_device(const std::string& file, const std::string& eui) {
  const std::string address = eui.substr(eui.size() - 8);
  return "{\"devFile\":\"" + file + "\",\"devEUI\":\"" + eui + "\",\"devAddr\":\"" + address +
         "\",\"nwkskey\":\"2b7e151628aed2a6abf7158809cf4f3c\",\"appskey\":\"000102030405060708090a0b0c0d0e0f\","
         "\"mode\":\"ABP\"}";
}

std::string json_array(const std::vector<std::string>& items) {
  std::string text = "[";
  for (size_t i = 0; i < items.size(); ++i) text += (i ? "," : "") + items[i];
  return text + "]";
}

}  // namespace e2e
