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
    "commands: uplink EUI HEX FPORT [MTYPE] | lan-result N|silent | node-result N|silent | help | quit";

// "N" or "silent"; false for anything else.
bool parse_answer(const std::string& word, std::optional<int32_t>& answer) {
  if (word == "silent") {
    answer.reset();
    return true;
  }
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) return false;
  answer = static_cast<int32_t>(value);
  return true;
}

std::string answer_text(const std::optional<int32_t>& answer) {
  return answer ? "result " + std::to_string(*answer) : std::string("no answer");
}

}  // namespace

CSimulator::CSimulator(std::optional<int32_t> lan_answer, std::optional<int32_t> node_answer) {
  m_lan.set_answer(lan_answer);
  m_node.set_answer(node_answer);
}

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
    // A signal interrupts the wait; the time-out only bounds a missed one.
    if (poll(fds, 3, 500) <= 0) continue;
    std::vector<std::string> lines;
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

  if (verb == "uplink") {
    CUplinkCommand uplink;
    if (!uplink.parse(words)) {
      print("error: " + uplink.error());
    } else if (!m_lan.send_uplink(uplink)) {
      print("error: " + m_lan.error());
    } else {
      print("sent " + uplink.describe());
    }
  } else if ((verb == "lan-result" || verb == "node-result") && words.size() == 1) {
    std::optional<int32_t> answer;
    if (!parse_answer(words[0], answer)) {
      print("error: " + verb + " takes an integer or \"silent\"");
    } else if (verb == "lan-result") {
      m_lan.set_answer(answer);
      print("downlinks now get " + answer_text(answer));
    } else {
      m_node.set_answer(answer);
      print("node requests now get " + answer_text(answer));
    }
  } else if (verb == "help") {
    print(kCommands);
  } else if (verb == "quit") {
    m_quit = true;
  } else {
    print("error: unknown command \"" + line + "\"; " + kCommands);
  }
}

void CSimulator::print(const std::string& line) {
  std::fputs(line.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
