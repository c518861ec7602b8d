#pragma once
// One end of a pseudo-terminal held by a test: a device file opened by path,
// in raw mode, or the master of a fresh pair whose slave a program opens by
// name (the remote serial port).  Non-blocking; reads and writes wait with
// time-outs.  Also a private folder under /tmp.

#include <cstddef>
#include <cstdint>
#include <string>

namespace tc_test {

class DeviceFile {
 public:
  // Opens `path` in raw mode (no echo, no line editing, no translation).
  explicit DeviceFile(const std::string& path);
  ~DeviceFile();
  DeviceFile(const DeviceFile&) = delete;
  DeviceFile& operator=(const DeviceFile&) = delete;

  int fd() const { return m_fd; }
  // All of `bytes`, or false when they did not fit within `timeout_ms`.
  bool write(const std::string& bytes, int timeout_ms = 10000);
  // Until `n` bytes came or the time is up.
  std::string read(size_t n, int timeout_ms);
  std::string read_for(int ms) { return read(SIZE_MAX, ms); }

 protected:
  explicit DeviceFile(int fd) : m_fd(fd) {}

 private:
  int m_fd = -1;
};

// A fresh folder under /tmp, removed with what is in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::string file(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

bool path_exists(const std::string& path);

}  // namespace tc_test
