#pragma once
// CSimulator: runs both simulated services and reads commands from standard
// input until SIGTERM, SIGINT or "quit".  Every event is one line on standard
// output.

#include <atomic>
#include <string>
#include <vector>

#include "tools/tc-lora-sim/lan_server_sim.h"
#include "tools/tc-lora-sim/node_service_sim.h"

namespace Zentrova {
namespace Iot {
namespace Tools {

class CSimulator {
 public:
  CReplier& lan_replier() { return m_lan.replier(); }
  CReplier& node_replier() { return m_node.replier(); }

  // Exit status: 0 after a stop, 1 when a port cannot be bound.
  int run(const std::atomic<bool>& stop);

 private:
  void read_input();
  void command(const std::string& line);
  // lan-result, lan-once, lan-delay and their node- twins.
  bool reply_command(const std::string& verb, const std::string& rest);  void print(const std::string& line);

  CLanServerSim m_lan;
  CNodeServiceSim m_node;
  bool m_input_open = true;
  bool m_quit = false;
  std::string m_partial;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
