#pragma once
// The remote gateway's serial port, played by a pseudo-terminal: the serial
// peer opens its slave by name, the test holds the master, the far end of the
// cable.

#include <string>
#include <utility>

#include "tests/support/device_file.h"

namespace e2e {

class RemotePort : public tc_test::DeviceFile {
 public:
  RemotePort();

  bool opened() const { return fd() >= 0; }
  // The slave's name, for the serial device configuration.
  const std::string& path() const { return m_path; }

 private:
  // The master and the slave's name.
  explicit RemotePort(std::pair<int, std::string> pair) : DeviceFile(pair.first), m_path(std::move(pair.second)) {}

  std::string m_path;
};

}  // namespace e2e
