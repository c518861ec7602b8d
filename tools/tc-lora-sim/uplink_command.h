#pragma once
// CUplinkCommand: "uplink EUI HEX FPORT [MTYPE]", from standard input or the
// command line, and the uplink datagram it stands for.

#include <cstdint>
#include <string>
#include <vector>

namespace Zentrova {
namespace Iot {
namespace Tools {

class CUplinkCommand {
 public:
  // The words after "uplink".  False, with error() set, for a wrong count or a
  // port or type that is not an integer.  EUI and HEX go out as given, so that
  // odd or non-hex payload text can be tried too.
  bool parse(const std::vector<std::string>& words);
  // {"data":HEX,"devEui":EUI,"fport":FPORT,"mtype":MTYPE}, ports as JSON integers.
  std::string datagram() const;
  // "uplink devEui=... fport=... mtype=... data=..." for the output.
  std::string describe() const;
  const std::string& error() const { return m_error; }

  static const char* usage() { return "uplink EUI HEX FPORT [MTYPE]"; }

 private:
  std::string m_eui;
  std::string m_hex;
  int32_t m_fport = 0;
  int32_t m_mtype = 2;
  std::string m_error;
};

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
