#pragma once
// The remote gateway's serial port, played by a pseudo-terminal: the serial
// peer opens its slave by name, the test holds the master, the far end of the
// cable.

#include <cstddef>
#include <string>

namespace e2e {

class RemotePort {
 public:
  RemotePort();
  ~RemotePort();
  RemotePort(const RemotePort&) = delete;
  RemotePort& operator=(const RemotePort&) = delete;

  bool opened() const { return m_master >= 0; }
  // The master, non-blocking, for a caller's own poll loop.
  int fd() const { return m_master; }
  // The slave's name, for the serial device configuration.
  const std::string& path() const { return m_path; }
  // All of `bytes`, or false when the port stays full for `timeout_ms`.
  bool write(const std::string& bytes, int timeout_ms = 10000);
  // Until `n` bytes came or the time is up.
  std::string read(size_t n, int timeout_ms);

 private:
  int m_master = -1;
  std::string m_path;
};

}  // namespace e2e
