// tc-serial-peer: the remote gateway's side of the serial bridge.

#include <signal.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/log/log.h"
#include "tools/tc-serial-peer/serial_peer.h"

using Zentrova::Iot::Tools::CPortPolicy;
using Zentrova::Iot::Tools::CSerialPeer;
using Zentrova::Iot::Tools::PeerOptions;

namespace {

const char* const kHelp =
    "tc-serial-peer: the remote gateway's side of the transparent-channel serial\n"
    "bridge.  It lets transparent-channel reach the serial ports of this machine.\n"
    "\n"
    "Usage: tc-serial-peer [options]\n"
    "\n"
    "  --bind ADDRESS      IPv4 address to listen on (default 0.0.0.0)\n"
    "  --port PORT         TCP port to listen on (default 5656, the port the\n"
    "                      bridge connects to)\n"
    "  --keepalive SECONDS keep-alive period per connection (default 10; 0 sends\n"
    "                      none).  The bridge drops a link after 30 s without one.\n"
    "  --fault KINDS       inject faults, for demos and tests: a comma list of drop\n"
    "                      (close the connection), stall (stop its keep-alives),\n"
    "                      garbage (send bytes that are not a frame) and stray\n"
    "                      (send a second connect response, a frame the client\n"
    "                      does not expect)\n"
    "  --fault-chance PCT  chance, per established connection and second, that one\n"
    "                      of the chosen faults strikes (default 10).  SIGUSR1\n"
    "                      makes one strike every established connection at once\n"
    "  --answer ANSWER     answer every connect request with ANSWER instead of\n"
    "                      opening the port: CODE:REASON, a refusal (CODE 1 to\n"
    "                      2147483647; a REASON longer than 255 characters gets a\n"
    "                      longer frame without a terminating zero), or none, no\n"
    "                      answer at all (the client must give up by itself)\n"
    "  --seed N            seed of the fault dice (default: from the clock)\n"
    "  --allow PATTERN     a device file clients may have opened, as an absolute\n"
    "                      glob ('*' and '?' stop at '/'); repeatable.  Without\n"
    "                      any, /dev/tty* (serial ports, not /dev/pts/*)\n"
    "  -h, --help          this text\n"
    "\n"
    "Each client first sends a connect request naming a serial port and its line\n"
    "settings.  Bare names (ttyS1) are looked up under /dev, absolute paths are\n"
    "used as they are.  Before anything is opened, the path is resolved (symbolic\n"
    "links followed, '..' refused); it must then match an --allow pattern and be a\n"
    "character device, and never is a console or the controlling terminal\n"
    "(/dev/tty, /dev/tty0 to /dev/tty63, /dev/console).  The port is opened in raw\n"
    "mode at the requested speed (standard rates from 50 to 4000000 bit/s), 5 to 8\n"
    "data bits, 1 or 2 stop bits, parity N, O or E, and RTS/CTS when flow control\n"
    "is 1.  The answer is code 0 with a short message, or a non-zero code with the\n"
    "reason, after which the connection is closed: 13 for a path that is not\n"
    "allowed, the errno value of a failed open or termios call (2 no such device,\n"
    "13 permission denied, 25 not a terminal, ...), or 22 for settings the port\n"
    "cannot take.  After code 0, bytes are relayed both ways in data frames.  A\n"
    "malformed frame closes that connection only.  A new client of a port that is\n"
    "already in use takes it over from the older connection.\n"
    "\n"
    "Whoever reaches the listening port can open every allowed serial port of\n"
    "this machine, without a password: bind to an interface only trusted\n"
    "gateways can reach, and allow only the ports they are meant to use.\n"
    "\n"
    "Log lines go to standard error.  SIGTERM or SIGINT ends the program.\n"
    "Exit status: 0 after a signal; 1 when the address cannot be used; 2 usage error.\n";

std::atomic<bool> g_stop{false};
std::atomic<bool> g_strike{false};

void on_signal(int sig) { (sig == SIGUSR1 ? g_strike : g_stop).store(true); }

int usage(const std::string& problem) {
  fprintf(stderr, "tc-serial-peer: %s\nTry 'tc-serial-peer --help'.\n", problem.c_str());
  return 2;
}

bool number(const char* text, unsigned long max, unsigned long& out) {
  char* end = nullptr;
  errno = 0;
  out = strtoul(text, &end, 10);
  return text[0] >= '0' && text[0] <= '9' && end && *end == '\0' && errno == 0 && out <= max;
}

// Empty on success, else what is wrong.
std::string parse(int argc, char** argv, PeerOptions& options, bool& help) {
  std::vector<std::string> allowed;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      help = true;
      continue;
    }
    if (arg != "--bind" && arg != "--port" && arg != "--keepalive" && arg != "--fault" && arg != "--fault-chance" &&
        arg != "--seed" && arg != "--allow" && arg != "--answer") {
      return "unknown argument " + arg;
    }
    if (i + 1 >= argc) return arg + " needs a value";
    const char* value = argv[++i];
    unsigned long n = 0;
    if (arg == "--bind") {
      options.bind = value;
    } else if (arg == "--allow") {
      if (value[0] != '/') return "--allow takes an absolute pattern, not " + std::string(value);
      allowed.push_back(value);
    } else if (arg == "--port") {
      if (!number(value, 65535, n) || n == 0) return "--port takes 1 to 65535";
      options.port = static_cast<uint16_t>(n);
    } else if (arg == "--keepalive") {
      if (!number(value, 86400, n)) return "--keepalive takes 0 to 86400 seconds";
      options.keepalive_s = static_cast<uint32_t>(n);
    } else if (arg == "--answer") {
      const std::string answer = value;
      const size_t colon = answer.find(':');
      options.answer.enabled = true;
      options.answer.silent = answer == "none";
      const bool refusal = colon != std::string::npos && number(answer.substr(0, colon).c_str(), INT32_MAX, n) && n;
      if (!options.answer.silent && !refusal) {
        return "--answer takes none or CODE:REASON with CODE 1 to 2147483647";
      }
      options.answer.code = static_cast<int32_t>(n);
      if (!options.answer.silent) options.answer.reason = answer.substr(colon + 1);
    } else if (arg == "--fault-chance") {
      if (!number(value, 100, n)) return "--fault-chance takes 0 to 100";
      options.fault_percent = static_cast<uint32_t>(n);
    } else if (arg == "--seed") {
      if (!number(value, 0xffffffffUL, n)) return "--seed takes a number";
      options.seed = static_cast<uint32_t>(n);
    } else {
      std::string kinds = std::string(value) + ",";
      for (size_t start = 0, comma; (comma = kinds.find(',', start)) != std::string::npos; start = comma + 1) {
        const std::string kind = kinds.substr(start, comma - start);
        if (kind == "drop") {
          options.fault_drop = true;
        } else if (kind == "stall") {
          options.fault_stall = true;
        } else if (kind == "garbage") {
          options.fault_garbage = true;
        } else if (kind == "stray") {
          options.fault_stray = true;
        } else {
          return "unknown fault '" + kind + "' (drop, stall, garbage, stray)";
        }
      }
    }
  }
  options.policy = CPortPolicy(allowed);
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  PeerOptions options;
  bool help = false;
  const std::string problem = parse(argc, argv, options, help);
  if (!problem.empty()) return usage(problem);
  if (help) {
    fputs(kHelp, stdout);
    return 0;
  }

  log_init("tc-serial-peer", 1, 0, 2);
  struct sigaction action {};
  action.sa_handler = &on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGUSR1, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);

  std::string allowed;
  for (const std::string& pattern : options.policy.patterns()) allowed += " " + pattern;
  TC_LOG(1, "main, ports allowed:%s", allowed.c_str());

  CSerialPeer peer(options);
  if (!peer.open()) return 1;
  peer.run(g_stop, g_strike);
  TC_LOG(1, "main, stopped by a signal");
  return 0;
}
