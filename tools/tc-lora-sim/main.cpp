// tc-lora-sim: a simulator of the two local LoRa services the transparent
// channel talks to, for demos and tests, and a one-shot uplink sender.

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tools/tc-lora-sim/simulator.h"
#include "tools/tc-lora-sim/udp_endpoint.h"
#include "tools/tc-lora-sim/uplink_command.h"

using Zentrova::Iot::Tools::CLanServerSim;
using Zentrova::Iot::Tools::CReplier;
using Zentrova::Iot::Tools::CSimulator;
using Zentrova::Iot::Tools::CUdpEndpoint;
using Zentrova::Iot::Tools::CUplinkCommand;

namespace {

const char* const kHelp =
    "tc-lora-sim: simulator of the local LoRa LAN server and LoRa node service,\n"
    "for demos and tests.\n"
    "\n"
    "Usage:\n"
    "  tc-lora-sim [OPTIONS]                       run both services until SIGTERM/SIGINT\n"
    "  tc-lora-sim uplink EUI HEX FPORT [MTYPE]    send one uplink to the bridge and exit\n"
    "\n"
    "The LoRa LAN server listens on UDP 127.0.0.1:18098: every downlink received is\n"
    "printed as one line and answered with {\"result\":N}.  Uplinks go from there to\n"
    "the bridge on 127.0.0.1:18099 as\n"
    "  {\"data\":HEX,\"devEui\":EUI,\"fport\":FPORT,\"mtype\":MTYPE}\n"
    "with FPORT and MTYPE (default 2, unconfirmed data up) as JSON integers, EUI and\n"
    "HEX as given.  The node service listens on UDP 127.0.0.1:16058: every set_rf,\n"
    "sync or add request is printed as one line (session keys left out) and\n"
    "answered with {\"result\":N}.\n"
    "\n"
    "Options:\n"
    "  --lan-result N     answer downlinks with result N (default 0)\n"
    "  --lan-silent       do not answer downlinks\n"
    "  --lan-delay MS     answer downlinks MS milliseconds late (default 0)\n"
    "  --node-result N    answer node requests with result N (default 0)\n"
    "  --node-silent      do not answer node requests (the bridge then waits 10 s)\n"
    "  --node-delay MS    answer node requests MS milliseconds late (default 0)\n"
    "  --show-datagrams   add each datagram received, as it came, to its line\n"
    "                     (\" <= TEXT\"; node requests then show session keys)\n"
    "  -h, --help         this text\n"
    "\n"
    "Commands on standard input, one a line:\n"
    "  uplink EUI HEX FPORT [MTYPE]   send an uplink to the bridge\n"
    "  raw TEXT                       send TEXT to the bridge as it is (odd datagrams)\n"
    "  lan-result N|silent            change the answer to downlinks\n"
    "  lan-once TEXT                  answer the next downlink with TEXT as it is\n"
    "                                 (queued: each one answers one downlink)\n"
    "  lan-delay MS                   change the delay of answers to downlinks\n"
    "  node-result, node-once, node-delay   the same for node requests\n"
    "  help, quit\n"
    "The end of standard input leaves the services running.\n"
    "\n"
    "Output, one line per event, e.g.:\n"
    "  ready: LoRa LAN server 127.0.0.1:18098, node service 127.0.0.1:16058, ...\n"
    "  downlink devEUI=\"00AA11BB22CC33DD\" fPort=\"10\" confirmed=\"false\" fcntd=\"361\" "
    "data=\"48656c6c6f\" (5 bytes \"Hello\") -> result 0\n"
    "  node set_rf RX2Frequency=\"486900000\" TxPower=\"17\" SF=\"7\" -> result 0\n"
    "  node sync count=2 devEui=00AA11BB22CC33DD,00AA11BB22CC33DE -> no answer\n"
    "  node add count=1 devEui=00AA11BB22CC33DF -> {\"busy\":1} in 500 ms\n"
    "  late answer sent: {\"busy\":1}\n"
    "  sent uplink devEui=00aa11bb22cc33dd fport=5 mtype=2 data=48656c6c6f\n"
    "  error: FPORT is not an integer: x\n"
    "Member values are shown in JSON text as received (\"-\" when missing).\n"
    "\n"
    "Exit status: 0 done; 1 a port could not be bound or the uplink not sent;\n"
    "2 usage error.\n";

std::atomic<bool> g_stop{false};

void on_signal(int) { g_stop = true; }

int usage(const std::string& why) {
  std::fprintf(stderr, "tc-lora-sim: %s (see --help)\n", why.c_str());
  return 2;
}

bool parse_result(const char* text, std::optional<int32_t>& out) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) return false;
  out = static_cast<int32_t>(value);
  return true;
}

int send_one_uplink(const std::vector<std::string>& words) {
  CUplinkCommand uplink;
  if (!uplink.parse(words)) return usage(uplink.error());
  CUdpEndpoint endpoint;
  if (!endpoint.open(0) || !endpoint.send_to(uplink.datagram(), CLanServerSim::kBridgePort)) {
    std::fprintf(stderr, "tc-lora-sim: %s\n", endpoint.error().c_str());
    return 1;
  }
  std::printf("sent %s\n", uplink.describe().c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CSimulator simulator;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (arg == "uplink") return send_one_uplink(std::vector<std::string>(argv + i + 1, argv + argc));
    CReplier& replier = arg.rfind("--lan-", 0) == 0 ? simulator.lan_replier() : simulator.node_replier();
    if (arg == "--lan-silent" || arg == "--node-silent") {
      replier.set_result(std::nullopt);
    } else if (arg == "--show-datagrams") {
      simulator.lan_replier().set_show(true);
      simulator.node_replier().set_show(true);
    } else if (arg == "--lan-result" || arg == "--node-result" || arg == "--lan-delay" || arg == "--node-delay") {
      const bool delay = arg.find("delay") != std::string::npos;
      std::optional<int32_t> value;
      if (i + 1 >= argc) return usage(arg + " needs a value");
      if (!parse_result(argv[++i], value) || (delay && *value < 0)) {
        return usage(arg + (delay ? " takes milliseconds, not " : " takes an integer, not ") + argv[i]);
      }
      delay ? replier.set_delay_ms(*value) : replier.set_result(value);
    } else {
      return usage("unknown argument " + arg);
    }
  }

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return simulator.run(g_stop);
}
