// tc-config: the configuration manager for development, demos and tests, and
// its command-line client.

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "common/log/log.h"
#include "common/platform/src/lock/semaphore.h"
#include "component/dbus_channel.h"
#include "tools/tc-config/config_client.h"
#include "tools/tc-config/config_server.h"
#include "tools/tc-config/config_store.h"

using Zentrova::Iot::Platform::CSemaphore;
using Zentrova::Iot::Tools::CConfigClient;
using Zentrova::Iot::Tools::CConfigServer;
using Zentrova::Iot::Tools::CConfigStore;

namespace {

const char* const kDefaultBus = "unix:path=/tmp/var/run/mbusd/mbusd_socket";

const char* const kHelp =
    "tc-config: configuration manager of the gateway bus, for development,\n"
    "demos and tests, and its command-line client.\n"
    "\n"
    "Usage:\n"
    "  tc-config serve [--store FILE]   serve iot.dmp.configmanager until SIGTERM/SIGINT\n"
    "  tc-config get KEY                print the value of KEY (empty when unset)\n"
    "  tc-config set KEY VALUE          set KEY; VALUE '-' reads standard input\n"
    "                                   (trailing newlines dropped), for JSON documents\n"
    "  tc-config list                   print every key and value as a JSON object\n"
    "  tc-config flush                  have the manager write its store file\n"
    "  tc-config reset                  have the manager forget every key\n"
    "\n"
    "Options, anywhere on the line:\n"
    "  --bus ADDRESS   bus address (default unix:path=/tmp/var/run/mbusd/mbusd_socket)\n"
    "  --store FILE    serve: JSON object file of the keys, read at start (a missing\n"
    "                  file is an empty store) and written by flush and when serve\n"
    "                  stops on SIGTERM/SIGINT; without it values live in memory only\n"
    "  --answer KEY=CODE  serve, repeatable: answer every request about KEY with the\n"
    "                  int32 CODE alone and change nothing (KEY= answers with no\n"
    "                  argument at all), to try a subscriber against a manager\n"
    "                  that refuses, loses a value or answers short\n"
    "  --timeout MS    clients: how long to wait for an answer (default 3000)\n"
    "  -v, --verbose   clients: also print the bus layer's log lines\n"
    "  -h, --help      this text\n"
    "\n"
    "serve owns iot.dmp.configmanager at /iot/dmp/configmanager and answers\n"
    "get_config, set_config, set_config_security, subscribe_config,\n"
    "unsubscribe_config, flush_config, reset_config and list_config, each with an\n"
    "int32 code (0 success, 1 malformed request, 2 store file not written);\n"
    "get_config adds the value after a 0 (a missing key reads as empty), list_config\n"
    "the store as JSON text.  A subscriber's bus name N and key K are remembered;\n"
    "every change of K is sent to N as notify_config(K, value) at N with dots as\n"
    "slashes (iot.gateway.transparentchannel -> /iot/gateway/transparentchannel),\n"
    "without waiting for the answer, which is logged.  A set that leaves the value\n"
    "as it was notifies nobody.  reset_config empties the store (the file follows at\n"
    "the next flush) and notifies the subscribers of every key that had a value\n"
    "with an empty one.\n"
    "\n"
    "gw_tc_serial_devices, gw_tc_loralan_devices and gw_tc_loralan_rf hold JSON:\n"
    "a value that is not valid JSON is warned about and stored anyway.\n"
    "\n"
    "Exit status: 0 done; 1 failed (bus unreachable, no answer, a non-zero code,\n"
    "serve lost its bus); 2 usage error.\n";

struct Options {
  std::string bus = kDefaultBus;
  std::string store;
  std::map<std::string, std::string> answers;
  uint32_t timeoutMs = 3000;
  bool verbose = false;
  bool help = false;
  std::vector<std::string> words;
};

int usage(const std::string& problem) {
  fprintf(stderr, "tc-config: %s\nTry 'tc-config --help'.\n", problem.c_str());
  return 2;
}

// Empty on success, else what is wrong.
std::string parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool valued = arg == "--bus" || arg == "--store" || arg == "--timeout" || arg == "--answer";
    if (valued && i + 1 >= argc) return arg + " needs a value";
    if (arg == "--bus") {
      options.bus = argv[++i];
    } else if (arg == "--store") {
      options.store = argv[++i];
    } else if (arg == "--answer") {
      const std::string told = argv[++i];
      const size_t eq = told.find('=');
      char* end = nullptr;
      const std::string code = eq == std::string::npos ? "" : told.substr(eq + 1);
      const long value = strtol(code.c_str(), &end, 10);
      if (eq == std::string::npos || eq == 0 || *end != '\0' || value != static_cast<int32_t>(value)) {
        return "--answer takes KEY=CODE, CODE an int32 or nothing";
      }
      options.answers[told.substr(0, eq)] = code;
    } else if (arg == "--timeout") {
      char* end = nullptr;
      const unsigned long ms = strtoul(argv[++i], &end, 10);
      if (!end || *end != '\0' || ms == 0 || ms > 3600000) return "--timeout takes 1 to 3600000 milliseconds";
      options.timeoutMs = static_cast<uint32_t>(ms);
    } else if (arg == "-v" || arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "-h" || arg == "--help") {
      options.help = true;
    } else if (arg.size() > 1 && arg[0] == '-' && arg != "-") {
      return "unknown option " + arg;
    } else {
      options.words.push_back(arg);
    }
  }
  return "";
}

CSemaphore g_exit(0);
std::atomic<bool> g_busLost{false};

void on_signal(int) { g_exit.post(); }

void on_bus_error(int32_t) {
  g_busLost.store(true);
  g_exit.post();
}

int serve(const Options& options) {
  log_init("tc-config", 1, 0, 2);
  CConfigStore store(options.store);
  std::string error;
  if (!store.load(error)) {
    fprintf(stderr, "tc-config: %s\n", error.c_str());
    return 1;
  }
  struct sigaction action {};
  action.sa_handler = &on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  CConfigServer server(options.bus, &store);
  for (const auto& told : options.answers) server.answer_as_told(told.first, told.second);
  server.set_error_callback(Zentrova::Iot::Component::CDBusErrorCallback(&on_bus_error));
  if (!server.start()) {
    fprintf(stderr, "tc-config: cannot serve on %s: the bus is unreachable or iot.dmp.configmanager has an owner\n",
            options.bus.c_str());
    return 1;
  }
  TC_LOG(1, "serve, iot.dmp.configmanager ready on [%s], store [%s].", options.bus.c_str(),
         options.store.empty() ? "memory only" : options.store.c_str());
  g_exit.wait(0);
  server.stop();
  int status = 0;
  if (g_busLost.load()) {
    fprintf(stderr, "tc-config: lost the bus connection at %s\n", options.bus.c_str());
    status = 1;
  }
  if (store.dirty() && !store.save(error)) {
    fprintf(stderr, "tc-config: %s\n", error.c_str());
    status = 1;
  }
  return status;
}

std::string read_input() {
  std::string text((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

int client(const Options& options) {
  const std::vector<std::string>& w = options.words;
  const std::string& command = w[0];
  const size_t wanted = command == "get" ? 2 : command == "set" ? 3 : 1;
  if (command != "get" && command != "set" && command != "list" && command != "flush" && command != "reset") {
    return usage("unknown command " + command);
  }
  if (w.size() != wanted) return usage(command + " takes " + std::to_string(wanted - 1) + " argument(s)");
  if (!options.store.empty() || !options.answers.empty()) return usage("--store and --answer belong to serve");

  log_init("tc-config", options.verbose ? 1 : 0, 0, 2);
  const std::string value = command == "set" ? (w[2] == "-" ? read_input() : w[2]) : "";
  CConfigClient config(options.bus, options.timeoutMs);
  if (!config.connect()) return 1;
  if (command == "get") return config.get(w[1]);
  if (command == "set") return config.set(w[1], value);
  if (command == "list") return config.list();
  if (command == "flush") return config.flush();
  return config.reset();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const std::string problem = parse(argc, argv, options);
  if (!problem.empty()) return usage(problem);
  if (options.help) {
    fputs(kHelp, stdout);
    return 0;
  }
  if (options.words.empty()) return usage("a command is needed");
  if (options.words[0] == "serve") {
    if (options.words.size() != 1) return usage("serve takes no argument");
    return serve(options);
  }
  return client(options);
}
