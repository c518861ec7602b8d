#include "tools/tc-lora-sim/simulator.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "tools/tc-lora-sim/uplink_command.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

const char* const kCommands =
    "commands: uplink EUI HEX FPORT [MTYPE] | raw TEXT | lan-result N|silent | lan-once TEXT | lan-delay MS | "
    "node-result N|silent | node-once TEXT | node-delay MS | help | quit";

// A whole decimal int32 ("silent" is the caller's); false for anything else.
bool parse_int(const std::string& word, int32_t& value) {
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != '\0' || errno != 0 || number < INT32_MIN || number > INT32_MAX) return false;
  value = static_cast<int32_t>(number);
  return true;
}

}  // namespace

int CSimulator::run(const std::atomic<bool>& stop) {
  if (!m_lan.open()) {
    std::fprintf(stderr, "tc-lora-sim: LoRa LAN server: %s\n", m_lan.error().c_str());
    return 1;
  }
  if (!m_node.open()) {
    std::fprintf(stderr, "tc-lora-sim: node service: %s\n", m_node.error().c_str());
    return 1;
  }
  print("ready: LoRa LAN server 127.0.0.1:" + std::to_string(CLanServerSim::kPort) + ", node service 127.0.0.1:" +
        std::to_string(CNodeServiceSim::kPort) + ", uplinks to 127.0.0.1:" +
        std::to_string(CLanServerSim::kBridgePort));

  while (!stop && !m_quit) {
    pollfd fds[3] = {{m_lan.fd(), POLLIN, 0}, {m_node.fd(), POLLIN, 0}, {m_input_open ? 0 : -1, POLLIN, 0}};
    // A signal interrupts the wait; the time-out only bounds a missed one,
    // unless a delayed answer falls due sooner.
    int wait = 500;
    for (const int due : {m_lan.replier().next_due_ms(), m_node.replier().next_due_ms()}) {
      if (due >= 0 && due < wait) wait = due;
    }
    if (poll(fds, 3, wait) < 0) continue;
    std::vector<std::string> lines;
    m_lan.send_due(lines);
    m_node.send_due(lines);
    if (fds[0].revents & POLLIN) m_lan.serve(lines);
    if (fds[1].revents & POLLIN) m_node.serve(lines);
    for (const auto& line : lines) print(line);
    if (fds[2].revents & (POLLIN | POLLHUP | POLLERR)) read_input();
  }
  return 0;
}

void CSimulator::read_input() {
  char buffer[4096];
  const ssize_t n = read(0, buffer, sizeof buffer);
  if (n < 0 && errno == EINTR) return;
  if (n <= 0) {
    // Without input the services keep running until a signal.
    if (!m_partial.empty()) command(m_partial);
    m_partial.clear();
    m_input_open = false;
    return;
  }
  m_partial.append(buffer, static_cast<size_t>(n));
  size_t end;
  while ((end = m_partial.find('\n')) != std::string::npos) {
    const std::string line = m_partial.substr(0, end);
    m_partial.erase(0, end + 1);
    command(line);
  }
}

void CSimulator::command(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  if (words.empty()) return;
  const std::string verb = words[0];
  words.erase(words.begin());
  // The rest of the line as typed, for texts with spaces.
  const size_t text_at = line.find_first_not_of(" \t", line.find(verb) + verb.size());
  const std::string rest = text_at == std::string::npos ? "" : line.substr(text_at);

  if (verb == "uplink") {
    CUplinkCommand uplink;
    if (!uplink.parse(words)) {
      print("error: " + uplink.error());
    } else if (!m_lan.send_to_bridge(uplink.datagram())) {
      print("error: " + m_lan.error());
    } else {
      print("sent " + uplink.describe());
    }
  } else if (verb == "raw" && !rest.empty()) {
    print(m_lan.send_to_bridge(rest) ? "sent raw " + rest : "error: " + m_lan.error());
  } else if (verb == "help") {
    print(kCommands);
  } else if (verb == "quit") {
    m_quit = true;
  } else if (!reply_command(verb, rest)) {
    print("error: unknown command \"" + line + "\"; " + kCommands);
  }
}

bool CSimulator::reply_command(const std::string& verb, const std::string& rest) {
  const size_t dash = verb.find('-');
  const std::string service = verb.substr(0, dash), what = dash == std::string::npos ? "" : verb.substr(dash + 1);
  if ((service != "lan" && service != "node") || (what != "result" && what != "once" && what != "delay")) return false;
  CReplier& replier = service == "lan" ? m_lan.replier() : m_node.replier();
  const std::string whom = service == "lan" ? "downlinks" : "node requests";
  int32_t number = 0;
  if (what == "once" && !rest.empty()) {
    replier.queue_once(rest);
    print("the next of the " + whom + " gets " + rest);
  } else if (what == "result" && rest == "silent") {
    replier.set_result(std::nullopt);
    print(whom + " now get no answer");
  } else if (what == "result" && parse_int(rest, number)) {
    replier.set_result(number);
    print(whom + " now get result " + std::to_string(number));
  } else if (what == "delay" && parse_int(rest, number) && number >= 0) {
    replier.set_delay_ms(number);
    print(whom + " now get their answers after " + std::to_string(number) + " ms");
  } else {
    print("error: " + verb + (what == "once" ? " needs a text" : what == "delay" ? " takes milliseconds"
                                                                              : " takes an integer or \"silent\""));
  }
  return true;
}

void CSimulator::print(const std::string& line) {
  std::fputs(line.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
