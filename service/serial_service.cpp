#include "service/serial_service.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "service/common.h"
#include "service/serial_frame.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

using Component::CConfigAgent;
using Component::CConfigCallback;
using Component::CDBusMethodHandler;
using Platform::CMutexGuard;

namespace {

const char* const kConfigKey = "gw_tc_serial_devices";
const char* const kStatusMethod = "serial_port_connect_status";
const char* const kLocalIp = "0.0.0.0";
constexpr uint16_t kRemotePort = 5656;
constexpr uint32_t kConfigTimeoutMs = 3000;
constexpr int32_t kSubscribeMode = 1;
constexpr int kEpollSize = 128;
constexpr int kMaxEvents = 128;
constexpr int kWaitMs = 1000;
constexpr uint64_t kConnectSweepMs = 60000;
constexpr uint64_t kKeepaliveCheckMs = 10000;
constexpr int32_t kKeepaliveTimeoutMs = 30000;
constexpr size_t kStatusLineSize = 1024;

SerialDevice* find_by_socket(std::list<SerialDevice*>& devices, int fd) {
  if (fd < 0) return nullptr;
  for (SerialDevice* device : devices) {
    if (device->socket_fd == fd) return device;
  }
  return nullptr;
}

// Receive buffers come and go with connections; running out of memory costs
// that one connection, not the thread.
bool ensure_buffer(SerialDevice* device) {
  if (!device->recv_buf) device->recv_buf = new (std::nothrow) uint8_t[kFrameMaxSize];
  return device->recv_buf != nullptr;
}

bool listed(const SerialDeviceConfigList& configured, const SerialDeviceConfig& config) {
  for (const SerialDeviceConfig* record : configured) {
    if (*record == config) return true;
  }
  return false;
}

bool live(const std::list<SerialDevice*>& devices, const SerialDeviceConfig& config) {
  for (const SerialDevice* device : devices) {
    if (device->config == config) return true;
  }
  return false;
}

void close_device(int epfd, SerialDevice* device) {
  if (device->device_fd > 0) {
    epoll_del(epfd, device->device_fd);
    close(device->device_fd);
  }
  if (device->socket_fd > 0) {
    epoll_del(epfd, device->socket_fd);
    close(device->socket_fd);
  }
  delete[] device->recv_buf;
  unlink(device->config.local_device.c_str());
  delete device;
}

}  // namespace

CSerialService::CSerialService(Component::CDBusChannel* dbus_channel, Component::CConfigAgent* config_agent)
    : CThread("serial_service_thread", POLICY_NORMAL, 64, 0),
      dbus_channel(dbus_channel),
      config_agent(config_agent),
      m_clock(&Platform::tickMs) {
  dbus_channel->register_method(kStatusMethod,
                                CDBusMethodHandler(this, &CSerialService::serial_port_connect_status));
}

CSerialService::~CSerialService() {
  stop();
  dbus_channel->register_method(kStatusMethod, CDBusMethodHandler());
  release_devices();
  CMutexGuard guard(&m_configured_lock);
  clear_serial_devices_config(configured);
}

bool CSerialService::start() {
  if (running.load()) return true;

  std::string value;
  int32_t result = config_agent->get_config(kConfigKey, value, kConfigTimeoutMs);
  if (result != 0 && result != CConfigAgent::kNoValue) {
    TC_LOG(2, "start, get config [%s] fail.", kConfigKey);
    return false;
  }
  TC_LOG(1, "start, get config %s:%s", kConfigKey, value.c_str());
  {
    CMutexGuard guard(&m_configured_lock);
    deal_serial_devices_config(value, configured);
  }
  result = config_agent->subscribe_config(kConfigKey, CConfigCallback(this, &CSerialService::callback_config),
                                          kSubscribeMode, kConfigTimeoutMs);
  if (result != 0) {
    TC_LOG(2, "start, subscribe config[%s] fail.", kConfigKey);
    return false;
  }
  return start_thread();
}

bool CSerialService::start_thread() {
  reload.store(true);
  running.store(true);
  return CThread::start();
}

void CSerialService::stop() {
  running.store(false);
  CThread::stop();
}

void CSerialService::callback_config(const std::string& key, const std::string& value, int& /*result*/) {
  TC_LOG(1, "callback_config, %s:%s", key.c_str(), value.c_str());
  if (key != kConfigKey) return;
  {
    CMutexGuard guard(&m_configured_lock);
    deal_serial_devices_config(value, configured);
  }
  // Only after the list is in place: the service thread reads it when it sees the flag.
  reload.store(true);
}

void CSerialService::serial_port_connect_status(DBus::CDBusMethodCall& /*call*/, DBus::CDBusMethodReturn& reply) {
  std::string status;
  {
    CMutexGuard guard(&m_devices_lock);
    char line[kStatusLineSize];
    for (const SerialDevice* device : devices) {
      const char* format = device->state.load() == kSerialEstablished
                               ? "\033[32m[%s] <--> [%s:%s], Connect Successfully\033[0m\n"
                               : "\033[33m[%s] <--> [%s:%s], Connect Failed\033[0m\n";
      snprintf(line, kStatusLineSize - 1, format, device->config.local_device.c_str(), device->config.ip.c_str(),
               device->config.device.c_str());
      status += line;
    }
  }
  reply.set_string(status);
}

void CSerialService::release_devices() {
  CMutexGuard guard(&m_devices_lock);
  for (SerialDevice* device : devices) close_device(m_epoll_fd, device);
  devices.clear();
  if (m_epoll_fd >= 0) close(m_epoll_fd);
  m_epoll_fd = -1;
}

void CSerialService::threadProc() {
  // Leftovers of an earlier run (start after stop) would otherwise leak.
  release_devices();
  const int epfd = epoll_create(kEpollSize);
  if (epfd < 0) TC_LOG(3, "threadProc, epoll_create error: %s", strerror(errno));
  m_epoll_fd = epfd;
  epoll_event events[kMaxEvents];
  uint64_t last_connect = 0;
  uint64_t last_keepalive_check = 0;

  while (running.load() && isRunning()) {
    // A reload sweeps in the same pass, even while the tick is still below
    // one sweep interval (it restarts near zero when it wraps).
    bool sweep_now = false;
    if (reload.exchange(false)) {
      reload_devices(epfd, devices);
      last_connect = 0;
      sweep_now = true;
    }

    const int n = epoll_wait(epfd, events, kMaxEvents, kWaitMs);
    // Without an epoll set the loop still paces itself.
    if (n < 0 && errno != EINTR) sleepMs(kWaitMs);
    for (int i = 0; i < n; ++i) {
      const int fd = events[i].data.fd;
      if (events[i].events & EPOLLIN) {
        deal_message(epfd, devices, fd);
      } else if (events[i].events & EPOLLOUT) {
        deal_connect(epfd, devices, fd);
      } else {
        deal_error(epfd, devices, fd);
      }
    }

    const uint64_t now = m_clock();
    if (sweep_now || now - last_connect > kConnectSweepMs) {
      last_connect = now;
      do_connect(epfd, devices);
    }
    if (now - last_keepalive_check > kKeepaliveCheckMs) {
      last_keepalive_check = now;
      check_keepalive(epfd, devices, now);
    }
  }
}

void CSerialService::reload_devices(int epfd, DeviceList& devices) {
  CMutexGuard configured_guard(&m_configured_lock);
  CMutexGuard devices_guard(&m_devices_lock);

  for (auto it = devices.begin(); it != devices.end();) {
    SerialDevice* device = *it;
    if (listed(configured, device->config)) {
      ++it;
      continue;
    }
    const SerialDeviceConfig& c = device->config;
    TC_LOG(1, "delete device, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
           static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
    close_device(epfd, device);
    it = devices.erase(it);
  }

  for (const SerialDeviceConfig* record : configured) {
    if (live(devices, *record)) continue;
    SerialDevice* device = new (std::nothrow) SerialDevice;
    if (!device) continue;
    ensure_buffer(device);
    device->recv_len = 0;
    device->device_fd = create_device_file(record->local_device);
    if (device->device_fd < 0) {
      TC_LOG(2, "add device, create_device_file fail dev_file:%s", record->local_device.c_str());
      delete[] device->recv_buf;
      delete device;
      continue;
    }
    if (epoll_add(epfd, device->device_fd) < 0) {
      TC_LOG(2, "add device, epoll add [%d] [%d] fail", epfd, device->device_fd);
      close(device->device_fd);
      delete[] device->recv_buf;
      delete device;
      continue;
    }
    device->socket_fd = -1;
    device->state.store(kSerialIdle);
    device->config = *record;
    const SerialDeviceConfig& c = device->config;
    TC_LOG(1, "add device, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
           static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
    devices.push_back(device);
  }
}

void CSerialService::do_connect(int epfd, DeviceList& devices) {
  for (SerialDevice* device : devices) {
    if (device->state.load() == kSerialEstablished) continue;
    if (device->socket_fd > 0) {
      epoll_del(epfd, device->socket_fd);
      close(device->socket_fd);
    }
    device->state.store(kSerialIdle);

    device->socket_fd = create_tcp(kLocalIp, 0);
    if (device->socket_fd < 0) {
      TC_LOG(2, "do connect, create_tcp fail");
      continue;
    }
    // Each frame is written whole; a small one must not wait for the
    // acknowledgement of the previous one (up to the peer's delayed ack).
    const int nodelay = 1;
    setsockopt(device->socket_fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof(nodelay));
    const SerialDeviceConfig& c = device->config;
    TC_LOG(1, "do connect, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
           static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
    // A socket whose connect failed is kept; the next sweep closes it.
    if (connect_tcp(device->socket_fd, c.ip, kRemotePort) < 0) {
      TC_LOG(2, "do connect, connect tcp %s:%d fail", c.ip.c_str(), kRemotePort);
      continue;
    }
    if (epoll_add(epfd, device->socket_fd) < 0) {
      TC_LOG(2, "do connect, epoll add [%d] [%d] fail", epfd, device->socket_fd);
    }
  }
}

void CSerialService::deal_connect(int /*epfd*/, DeviceList& devices, int fd) {
  SerialDevice* device = find_by_socket(devices, fd);
  // Later writable edges of an open connection mean nothing.
  if (!device || device->state.load() != kSerialIdle) return;

  const SerialDeviceConfig& c = device->config;
  TC_LOG(1, "deal connect, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
         static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
  device->state.store(kSerialAwaiting);
  device->recv_len = 0;
  ensure_buffer(device);

  uint8_t request[kConnectRequestSize];
  build_connect_request(c, request);
  const int nsend = send_tcp(fd, request, static_cast<int32_t>(kConnectRequestSize));
  // Not closed here: a connection without its response is redone by the next sweep.
  if (nsend < static_cast<int>(kConnectRequestSize)) {
    TC_LOG(3, "deal connect, send_tcp error, nsend: %d, size: %zu", nsend, kConnectRequestSize);
  }
}

void CSerialService::deal_message(int epfd, DeviceList& devices, int fd) {
  SerialDevice* device = nullptr;
  for (SerialDevice* candidate : devices) {
    if (candidate->socket_fd == fd) {
      device = candidate;
      break;
    }
    if (candidate->device_fd == fd) {
      if (!deal_device_message(candidate)) deal_error(epfd, devices, candidate->socket_fd);
      return;
    }
  }
  if (!device) return;
  if (!deal_message(device, m_clock)) deal_error(epfd, devices, fd);
}

bool CSerialService::deal_message(SerialDevice* device, Clock clock) {
  // A connection may turn readable before its writable edge was handled.
  if (!ensure_buffer(device)) return false;

  const int fd = device->socket_fd;
  const SerialDeviceConfig& c = device->config;
  for (;;) {
    const int n = recv_tcp(fd, device->recv_buf + device->recv_len,
                           static_cast<int32_t>(kFrameMaxSize - device->recv_len));
    if (n < 0) return true;  // drained; a partial frame stays for the next edge
    if (n == 0) return false;
    device->recv_len += static_cast<uint32_t>(n);

    FrameHeader header{};
    for (;;) {
      const FrameCheck check = examine_frame(device->recv_buf, device->recv_len, header);
      if (check == FrameCheck::need_more) break;
      if (check == FrameCheck::bad_header) {
        TC_LOG(3, "deal message, message header error, magic: 0x%x, type: %d, len: %d", header.magic, header.type,
               header.len);
        return false;
      }

      const int32_t state = device->state.load();
      bool ok = true;
      switch (classify_frame(header, state == kSerialEstablished, state == kSerialAwaiting)) {
        case FrameRole::data: {
          const int payload = header.len - static_cast<int>(kFrameHeaderSize);
          const int nwrite = send_file(device->device_fd, device->recv_buf + kFrameHeaderSize, payload);
          if (nwrite != payload) {
            TC_LOG(3, "deal message, send_file error nread: %d, nwrite: %d", payload, nwrite);
            ok = false;
          }
          TC_LOG(0, "deal network message, [%s:%s] --> [%s], data length: %d", c.ip.c_str(), c.device.c_str(),
                 c.local_device.c_str(), payload);
          break;
        }
        case FrameRole::keepalive:
          TC_LOG(0, "deal keepalive message, [%s:%s] --> [%s]", c.ip.c_str(), c.device.c_str(),
                 c.local_device.c_str());
          device->last_keepalive_ms = clock();
          break;
        case FrameRole::response: {
          int32_t code = 0;
          char message[kFrameMaxSize];
          read_connect_response(device->recv_buf, header.len, code, message, sizeof message);
          TC_LOG(1, "deal message, response code:%d, message:%s, fd:%d, local_device:%s, remote_device:%s:%s", code,
                 message, fd, c.local_device.c_str(), c.ip.c_str(), c.device.c_str());
          device->last_keepalive_ms = clock();
          if (code == 0) {
            device->state.store(kSerialEstablished);
          } else {
            device->state.store(kSerialRefused);
            ok = false;
          }
          break;
        }
        case FrameRole::unexpected:
          TC_LOG(3, "deal message, message type error, magic: 0x%x, type: %d, len: %d", header.magic, header.type,
                 header.len);
          ok = false;
          break;
      }
      if (!ok) return false;

      if (device->recv_len == header.len) {
        device->recv_len = 0;
      } else {
        memmove(device->recv_buf, device->recv_buf + header.len, device->recv_len - header.len);
        device->recv_len -= header.len;
      }
    }
  }
}

bool CSerialService::deal_device_message(SerialDevice* device) {
  // Built in place: the payload is read straight behind the header.
  uint8_t frame[kFrameMaxSize];
  const SerialDeviceConfig& c = device->config;
  bool ok = true;
  for (;;) {
    const int n = recv_file(device->device_fd, frame + kFrameHeaderSize, static_cast<int32_t>(kFrameMaxPayload));
    if (n <= 0) break;
    // Nothing is queued while the link is down: the bytes are dropped.
    if (device->state.load() != kSerialEstablished) continue;
    const int len = n + static_cast<int>(kFrameHeaderSize);
    write_frame_header(frame, kFrameData, static_cast<uint16_t>(len));
    const int nwrite = send_tcp(device->socket_fd, frame, len);
    if (nwrite != len) {
      TC_LOG(3, "deal device message, send_tcp error nread: %d, nwrite: %d", len, nwrite);
      ok = false;
    }
    TC_LOG(0, "deal device message, [%s] --> [%s:%s], data length: %d", c.local_device.c_str(), c.ip.c_str(),
           c.device.c_str(), n);
  }
  return ok;
}

void CSerialService::deal_error(int epfd, DeviceList& devices, int fd) {
  // Events on device files land here too and are ignored.
  SerialDevice* device = find_by_socket(devices, fd);
  if (!device) return;
  const SerialDeviceConfig& c = device->config;
  TC_LOG(1, "deal error, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
         static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
  epoll_del(epfd, fd);
  close(fd);
  device->socket_fd = -1;
  device->state.store(kSerialIdle);
  device->recv_len = 0;
  delete[] device->recv_buf;
  device->recv_buf = nullptr;
}

void CSerialService::check_keepalive(int epfd, DeviceList& devices, uint64_t now) {
  for (SerialDevice* device : devices) {
    if (device->state.load() != kSerialEstablished) continue;
    const SerialDeviceConfig& c = device->config;
    const int32_t elapsed = static_cast<int32_t>(now - device->last_keepalive_ms);
    TC_LOG(0, "check keepalive, [%s:%s] --> [%s], interval: %d ms", c.ip.c_str(), c.device.c_str(),
           c.local_device.c_str(), elapsed);
    if (elapsed >= kKeepaliveTimeoutMs) {
      TC_LOG(2, "check keepalive, keepalive timeout [%s:%s] --> [%s]", c.ip.c_str(), c.device.c_str(),
             c.local_device.c_str());
      deal_error(epfd, devices, device->socket_fd);
    }
  }
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
