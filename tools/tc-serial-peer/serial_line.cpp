#include "tools/tc-serial-peer/serial_line.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Zentrova {
namespace Iot {
namespace Tools {

namespace {

struct Speed {
  uint32_t rate;
  speed_t constant;
};

const Speed kSpeeds[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},         {150, B150},
    {200, B200},         {300, B300},         {600, B600},         {1200, B1200},       {1800, B1800},
    {2400, B2400},       {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
    {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
};

bool find_speed(uint32_t rate, speed_t& out) {
  for (const Speed& s : kSpeeds) {
    if (s.rate == rate) {
      out = s.constant;
      return true;
    }
  }
  return false;
}

int fail(int32_t& code, std::string& reason, int32_t value, const std::string& text) {
  code = value;
  reason = text;
  return -1;
}

}  // namespace

std::string serial_line_path(const char* device) {
  if (device[0] == '/') return device;
  return std::string("/dev/") + device;
}

int open_serial_line(const TransparentChannel::ConnectRequest& request, const CPortPolicy& policy, int32_t& code,
                     std::string& reason) {
  // Settings first: a bad request never touches the port.
  speed_t speed = B0;
  if (!find_speed(request.baud_rate, speed)) {
    return fail(code, reason, kBadLineSettings, "unsupported baud rate " + std::to_string(request.baud_rate));
  }
  if (request.data_bit < 5 || request.data_bit > 8) {
    return fail(code, reason, kBadLineSettings, "unsupported data bits " + std::to_string(request.data_bit));
  }
  if (request.stop_bit != 1 && request.stop_bit != 2) {
    return fail(code, reason, kBadLineSettings, "unsupported stop bits " + std::to_string(request.stop_bit));
  }
  if (request.parity != 'N' && request.parity != 'O' && request.parity != 'E') {
    return fail(code, reason, kBadLineSettings, "unsupported parity");
  }
  if (request.flow_control > 1) {
    return fail(code, reason, kBadLineSettings, "unsupported flow control " + std::to_string(request.flow_control));
  }

  const std::string path = serial_line_path(request.device);
  std::string resolved;
  if (!policy.check(path, resolved, code, reason)) return -1;
  // The checked path itself: a link put in its place since is not followed.
  const int fd = open(resolved.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    const int error = errno;
    return fail(code, reason, error, path + ": " + strerror(error));
  }

  termios tio{};
  if (tcgetattr(fd, &tio) != 0) {
    const int error = errno;
    close(fd);
    return fail(code, reason, error, path + ": " + strerror(error));
  }
  cfmakeraw(&tio);
  cfsetispeed(&tio, speed);
  cfsetospeed(&tio, speed);
  static const tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
  tio.c_cflag &= ~(CSIZE | CSTOPB | PARENB | PARODD | CRTSCTS);
  tio.c_cflag |= kSizes[request.data_bit - 5] | CLOCAL | CREAD;
  if (request.stop_bit == 2) tio.c_cflag |= CSTOPB;
  if (request.parity == 'O') tio.c_cflag |= PARENB | PARODD;
  if (request.parity == 'E') tio.c_cflag |= PARENB;
  if (request.flow_control == 1) tio.c_cflag |= CRTSCTS;
  tio.c_cc[VMIN] = 1;
  tio.c_cc[VTIME] = 0;
  if (tcsetattr(fd, TCSANOW, &tio) != 0) {
    const int error = errno;
    close(fd);
    return fail(code, reason, error, path + ": " + strerror(error));
  }
  // Bytes that arrived before anyone listened belong to nobody.
  tcflush(fd, TCIOFLUSH);
  code = 0;
  reason.clear();
  return fd;
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Zentrova
