#include "tests/e2e/gateway.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "common/json/json_text.h"
#include "service/common.h"

namespace e2e {

const char* const kEui = "00aa11bb22cc33dd";
const char* const kRf = R"({"class-c":{"RX2Frequency":"486900000","TxPower":"17","SF":"7"}})";
const char* const kReadyLine = " I start: start, transparent-channel startup success.";

using tc_test::ChildProcess;

const std::string kConfigTool = TC_BINARY_DIR "/tools/tc-config/tc-config";

std::pair<int, std::string> RemotePort::open_pair() {
  int master = -1, slave = -1;
  char name[256] = {};
  if (openpty(&master, &slave, name, nullptr, nullptr) != 0) return {-1, ""};
  close(slave);  // the peer opens it by name, in raw mode
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
  return {master, name};
}

bool Gateway::fail(const std::string& why) {
  m_error = why;
  return false;
}

bool Gateway::start_bus(const std::string& config_file) {
  return m_bus.start("/tmp/var/run/mbusd/mbusd_socket", config_file) || fail("dbus-daemon: " + m_bus.error());
}

bool Gateway::start(std::unique_ptr<ChildProcess>& slot, std::vector<std::string> argv,
                    const std::vector<std::string>& options, const char* ready) {
  argv.insert(argv.end(), options.begin(), options.end());
  slot = std::make_unique<ChildProcess>(argv);
  return slot->wait_for_line(ready, kWaitMs) || fail(argv[0] + ": " + slot->output());
}

bool Gateway::start_manager(const Keys& keys) {
  Json::Value store(Json::objectValue);
  for (const auto& [key, value] : keys) store[key] = value;
  std::string text;
  Zentrova::Iot::Platform::json_to_string(store, text, true);
  std::ofstream(path("store.json")) << text << '\n';
  return start(m_manager, {kConfigTool, "serve", "--store", path("store.json")}, {}, "ready on");
}

bool Gateway::start_lora_sim(const std::vector<std::string>& options) {
  return start(m_lora_sim, {TC_BINARY_DIR "/tools/tc-lora-sim/tc-lora-sim"}, options, "ready:");
}

bool Gateway::start_serial_peer(const std::string& ip, const std::vector<std::string>& options) {
  m_serial_peers.emplace_back();
  return start(m_serial_peers.back(), {TC_BINARY_DIR "/tools/tc-serial-peer/tc-serial-peer", "--bind", ip, "--keepalive", "1"},
               options, "listening on");
}

bool Gateway::start_service(const std::vector<std::string>& wrapper) {
  std::vector<std::string> argv = wrapper;
  argv.push_back(TC_BINARY_DIR "/service/transparent-channel");
  m_service = std::make_unique<ChildProcess>(argv);
  return m_service->started() || fail("transparent-channel did not start");
}

bool Gateway::wait_ready() {
  return m_service->wait_for_line(kReadyLine, 3 * kWaitMs) || fail("no start-up:\n" + m_service->output());
}

bool Gateway::start_all(const Keys& keys) {
  return start_bus() && start_manager(keys) && start_lora_sim() && start_serial_peer("127.0.0.2") &&
         start_service() && wait_ready();
}

std::optional<std::string> Gateway::status() {
  ChildProcess tool({TC_BINARY_DIR "/tools/tc-status/tc-status", "--links"});
  int status = 0;
  if (!tool.wait_exit(kWaitMs, &status) || tc_test::exit_code(status) != 0) return std::nullopt;
  return tool.output();
}

testing::AssertionResult Gateway::wait_status(const std::string& expected, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const std::string last = status().value_or("(no answer)");
    if (last == expected) return testing::AssertionSuccess();
    if (std::chrono::steady_clock::now() >= end) return testing::AssertionFailure() << "status: " << last;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

int Gateway::set_config(const std::string& key, const std::string& value) {
  // A value that would read as an option goes through standard input.
  const bool piped = !value.empty() && value[0] == '-';
  ChildProcess tool({kConfigTool, "set", key, piped ? "-" : value});
  if (piped) tool.write_input(value);
  tool.close_input();
  int status = 0;
  return tool.wait_exit(kWaitMs, &status) ? tc_test::exit_code(status) : -1;
}

bool Gateway::wait_thread_in(long number, bool main) {
  const std::string pid = std::to_string(m_service->pid());
  // "<number> <arguments...>" while in a call; "running" or "-1 ..." otherwise.
  const auto in_call = [number](const std::string& file) {
    long current = -1;
    return (std::ifstream(file) >> current) && current == number;
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (std::chrono::steady_clock::now() < end) {
    if (main && in_call("/proc/" + pid + "/syscall")) return true;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + pid + "/task", error)) {
      if (!main && task.path().filename() != pid && in_call(task.path().string() + "/syscall")) return true;
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
  // Operators and their log collectors parse the prefix: the time to the
  // millisecond, always three digits, then the program.
  const std::string mask = "dddd-dd-ddTdd:dd:dd.dddZ transparent-channel[";  // d: a digit
  for (const auto& line : m_service->lines()) {
    bool ok = line.size() > mask.size();
    for (size_t i = 0; ok && i < mask.size(); ++i) {
      ok = mask[i] == 'd' ? line[i] >= '0' && line[i] <= '9' : line[i] == mask[i];
    }
    EXPECT_TRUE(ok) << line;
  }
  return result;
}

void expect_bounded_stop(Gateway& gw) {
  const ExitResult exit = gw.stop_service(SIGTERM);
  ASSERT_TRUE(exit.exited) << gw.service().output();
  EXPECT_EQ(exit.code, 0) << gw.service().output();
  EXPECT_LT(exit.ms, kShutdownBoundMs);
}

std::string run(const std::vector<std::string>& argv) {
  ChildProcess command(argv);
  int status = -1;
  EXPECT_TRUE(command.wait_exit(kWaitMs, &status)) << argv[0];
  EXPECT_EQ(tc_test::exit_code(status), 0) << argv[0] << ": " << command.output();
  return command.output();
}

std::string status_line(const std::string& local, const std::string& ip, const std::string& remote, bool connected) {
  return std::string(connected ? "\033[32m[" : "\033[33m[") + local + "] <--> [" + ip + ":" + remote + "], " +
         (connected ? "Connect Successfully" : "Connect Failed") + "\033[0m\n";
}

std::string serial_device(const std::string& local, const std::string& ip, const std::string& remote, int baud,
                          const char* bits, int flow) {
  return "{\"local_device\":\"" + local + "\",\"remote_device\":{\"ip\":\"" + ip + "\",\"device\":\"" + remote +
         "\",\"baud_rate\":" + std::to_string(baud) + ",\"data_bit\":" + bits[0] + ",\"stop_bit\":" + bits[2] +
         ",\"parity\":\"" + bits[1] + "\",\"flow_control\":" + std::to_string(flow) + "}}";
}

std::string lora_device(const std::string& file, const std::string& eui) {
  return "{\"devFile\":\"" + file + "\",\"devEUI\":\"" + eui + "\",\"devAddr\":\"" + eui.substr(eui.size() - 8) +
         "\",\"nwkskey\":\"2b7e151628aed2a6abf7158809cf4f3c\",\"appskey\":\"000102030405060708090a0b0c0d0e0f\","
         "\"mode\":\"ABP\"}";
}

std::string json_array(const std::vector<std::string>& items) {
  std::string text = "[";
  for (size_t i = 0; i < items.size(); ++i) text += (i ? "," : "") + items[i];
  return text + "]";
}

std::string hex(const std::string& bytes) {
  std::string text;
  Zentrova::Iot::TransparentChannel::bytes_to_hex(bytes, text);
  return text;
}

}  // namespace e2e
