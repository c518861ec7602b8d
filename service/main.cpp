// transparent-channel: process entry, signals, the exit wait, and the
// building, starting, stopping and destroying of every component.

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <initializer_list>
#include <iterator>

#include <exception>
#include <string>
#include <vector>

#include "common/json/json_text.h"
#include "common/log/log.h"
#include "common/platform/src/lock/semaphore.h"
#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/lora_lan.h"
#include "service/lora_node.h"
#include "service/serial_service.h"

using Zentrova::Iot::Component::CConfigAgent;
using Zentrova::Iot::Component::CConfigCallback;
using Zentrova::Iot::Component::CDBusChannel;
using Zentrova::Iot::Component::CDBusErrorCallback;
using Zentrova::Iot::Component::CDBusMethodHandler;
using Zentrova::Iot::DBus::CDBusMethodCall;
using Zentrova::Iot::DBus::CDBusMethodReturn;
using Zentrova::Iot::Platform::CSemaphore;
using Zentrova::Iot::TransparentChannel::CLoraLan;
using Zentrova::Iot::TransparentChannel::CLoraNode;
using Zentrova::Iot::TransparentChannel::CSerialService;

namespace {

// Cleared by a termination signal at any moment from main's first line on,
// and never set again.
std::atomic<bool> g_running{true};
CSemaphore g_exit_semaphore(0);

const char* const kBusAddress = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
const char* const kBusName = "iot.gateway.transparentchannel";
const char* const kObjectPath = "/iot/gateway/transparentchannel";
constexpr uint32_t kRetryMs = 1000;
constexpr int32_t kSubscribeMode = 1;
constexpr uint32_t kSubscribeTimeoutMs = 3000;

CDBusChannel* g_dbus_channel = nullptr;
CConfigAgent* g_config_agent = nullptr;
CLoraLan* g_lora_lan = nullptr;
CLoraNode* g_lora_node = nullptr;
CSerialService* g_serial_service = nullptr;

// strsignal() may allocate and lock, so its texts are taken once, before any
// handler is installed, and the handler only copies them.
constexpr int kSignalText = 64;
char g_signal_text[NSIG][kSignalText];

void copy_text(char* to, size_t cap, size_t& len, const char* from) {
  while (*from && len + 1 < cap) to[len++] = *from++;
  to[len] = '\0';
}

// The signals our handler is installed for, in that order.
const int kHandledSignals[] = {SIGTERM, SIGINT, SIGSEGV, SIGPIPE, SIGQUIT, SIGILL, SIGABRT, SIGUSR1};
// Those sent from outside to end the service: held back until the handler is in place.
const int kTerminationSignals[] = {SIGTERM, SIGINT, SIGQUIT, SIGUSR1};

void set_blocked(const int* signals, size_t count, int how);
void install_signal_handlers();
void startup_sequence();
void shutdown_sequence();

}  // namespace

void service_exit() {
  g_running.store(false);
  g_exit_semaphore.post();
}

// Async-signal-safe: the line is assembled by hand and written with one write(2).
void system_signal_handler(int sig) {
  const int saved_errno = errno;
  char text[128];
  size_t len = 0;
  copy_text(text, sizeof text, len, "caught ");
  copy_text(text, sizeof text, len, (sig > 0 && sig < NSIG) ? g_signal_text[sig] : "Unknown");
  copy_text(text, sizeof text, len, " signal, exit");
  log_print_text(2, nullptr, nullptr, __FILE__, __func__, __LINE__, text);
  if (sig == SIGSEGV) _exit(255);
  service_exit();
  errno = saved_errno;
}

void dbus_error_callback(int32_t /*code*/) { service_exit(); }

void loralan_config_callback(const std::string& key, const std::string& value, int& extra) {
  g_lora_lan->config_change_callback(key, value, extra);
  g_lora_node->config_change_callback(key, value, extra);
}

// "channel_statistics": what every bridge counted, and the node service's
// last answers, as one compact JSON object.
void channel_statistics(CDBusMethodCall& /*call*/, CDBusMethodReturn& reply) {
  Json::Value all(Json::objectValue);
  all["serial"] = g_serial_service->statistics();
  all["lora"] = g_lora_lan->statistics();
  all["node"] = g_lora_node->statistics();
  std::string text;
  Zentrova::Iot::Platform::json_to_string(all, text, false);
  reply.set_string(text);
}

int start() {
  // g_running is not set here: a signal that came before start must not be forgotten.
  startup_sequence();

  while (g_running.load()) {
    TC_LOG(1, "start, transparent-channel startup success.");
    g_exit_semaphore.wait(0);
  }

  shutdown_sequence();
  return 1;
}

int main(int /*argc*/, char** /*argv*/) {
  // A termination signal before the handlers are in place waits for them
  // instead of ending the process unlogged; one inherited blocked is let through.
  set_blocked(kTerminationSignals, std::size(kTerminationSignals), SIG_BLOCK);
  log_init("transparent-channel", 1, 0, 2);
  TC_LOG(1, "transparent-channel start.");
  install_signal_handlers();
  set_blocked(kHandledSignals, std::size(kHandledSignals), SIG_UNBLOCK);
  start();
  TC_LOG(1, "transparent-channel exit.");
  return 0;
}

namespace {

// One start attempt; an exception (a configuration value that cannot be
// converted, say) counts as a failed attempt instead of ending the process.
template <typename Attempt>
bool attempt_start(const char* component, Attempt attempt) {
  try {
    return attempt();
  } catch (const std::exception& e) {
    TC_LOG(3, "start, %s start raised an error: %s", component, e.what());
  } catch (...) {
    TC_LOG(3, "start, %s start raised an unknown error", component);
  }
  return false;
}

// Retries a component's start every second until it succeeds or the service
// is told to exit; a signal ends the pause at once.
template <typename Attempt>
void start_loop(const char* component, const char* fail_text, Attempt attempt) {
  while (g_running.load() && !attempt_start(component, attempt)) {
    log_print(2, nullptr, nullptr, __FILE__, "start", __LINE__, "%s", fail_text);
    g_exit_semaphore.wait(kRetryMs);
  }
}

void startup_sequence() {
  g_dbus_channel = new CDBusChannel(kBusAddress, kBusName, kObjectPath, std::vector<std::string>());
  g_config_agent = new CConfigAgent(g_dbus_channel, kBusName);
  g_lora_lan = new CLoraLan(g_config_agent);
  g_lora_node = new CLoraNode(g_config_agent);
  g_serial_service = new CSerialService(g_dbus_channel, g_config_agent);

  g_dbus_channel->set_error_callback(CDBusErrorCallback(&dbus_error_callback));
  g_dbus_channel->register_method("channel_statistics", CDBusMethodHandler(&channel_statistics), "", "s");

  start_loop("dbus", "start, dbus connect fail, try again", [] { return g_dbus_channel->start() == 1; });

  // One subscription serves both LoRa components; made even when a signal
  // cut the bus loop short.
  const CConfigCallback forward(&loralan_config_callback);
  g_config_agent->subscribe_config("gw_tc_loralan_rf", forward, kSubscribeMode, kSubscribeTimeoutMs);
  g_config_agent->subscribe_config("gw_tc_loralan_devices", forward, kSubscribeMode, kSubscribeTimeoutMs);

  start_loop("lora lan", "start, lora lan start fail, try again", [] { return g_lora_lan->start() >= 1; });
  start_loop("lora node", "start, lora node start fail, try again", [] { return g_lora_node->start() >= 1; });
  start_loop("serial service", "start, serial service start fail, try again",
             [] { return g_serial_service->start(); });
}

void shutdown_sequence() {
  g_serial_service->stop();
  g_lora_lan->stop();
  g_lora_node->close_socket();
  g_dbus_channel->stop();

  delete g_serial_service;
  g_serial_service = nullptr;
  delete g_lora_node;
  g_lora_node = nullptr;
  delete g_lora_lan;
  g_lora_lan = nullptr;
  delete g_config_agent;
  g_config_agent = nullptr;
  delete g_dbus_channel;
  g_dbus_channel = nullptr;
}

void set_blocked(const int* signals, size_t count, int how) {
  sigset_t set;
  sigemptyset(&set);
  for (size_t i = 0; i < count; ++i) sigaddset(&set, signals[i]);
  sigprocmask(how, &set, nullptr);
}

void install_signal_handlers() {
  for (int sig = 1; sig < NSIG; ++sig) {
    size_t len = 0;
    const char* text = strsignal(sig);
    copy_text(g_signal_text[sig], kSignalText, len, text ? text : "Unknown");
  }

  struct sigaction action {};
  action.sa_handler = system_signal_handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  for (int sig : kHandledSignals) sigaction(sig, &action, nullptr);
  // SIGPIPE is ignored after all: a write to a closed socket must never end the process.
  for (int sig : {SIGTTOU, SIGTTIN, SIGTSTP, SIGHUP, SIGPIPE}) signal(sig, SIG_IGN);
}

}  // namespace
