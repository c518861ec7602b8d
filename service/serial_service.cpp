#include "service/serial_service.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "service/common.h"
#include "service/device_paths.h"

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
constexpr uint64_t kConnectSweepMs = 60000;
constexpr uint64_t kKeepaliveCheckMs = 10000;
constexpr int32_t kKeepaliveTimeoutMs = 30000;
constexpr size_t kStatusLineSize = 1024;
constexpr int kTickStepMs = 10;
constexpr int kUnsentLowWater = 65536;
// A busy loop answers within a pass; a stuck one must not hold the bus thread.
constexpr uint32_t kStatsWaitMs = 1000;

const char* state_name(int32_t state) {
  switch (state) {
    case kSerialEstablished:
      return "established";
    case kSerialAwaiting:
      return "awaiting response";
    case kSerialRefused:
      return "refused";
    default:
      return "not connected";
  }
}

CSerialLink* find_by_socket(std::list<CSerialLink*>& devices, int fd) {
  if (fd < 0) return nullptr;
  for (CSerialLink* device : devices) {
    if (device->socket_fd() == fd) return device;
  }
  return nullptr;
}

bool listed(const SerialDeviceConfigList& configured, const SerialDeviceConfig& config) {
  for (const SerialDeviceConfig* record : configured) {
    if (*record == config) return true;
  }
  return false;
}

bool live(const std::list<CSerialLink*>& devices, const SerialDeviceConfig& config) {
  for (const CSerialLink* device : devices) {
    if (device->config() == config) return true;
  }
  return false;
}

void close_device(int epfd, CSerialLink* device) {
  if (device->device_fd() > 0) {
    epoll_del(epfd, device->device_fd());
    close(device->device_fd());
  }
  if (device->socket_fd() > 0) {
    epoll_del(epfd, device->socket_fd());
    close(device->socket_fd());
  }
  unlink(device->config().local_device.c_str());
  CDevicePaths::shared().release(device->config().local_device);
  delete device;
}

// Programs that open the device file are seen through its slave's node; the
// watch goes away with the pseudo-terminal.
bool watch_opens(int watch_fd, int device_fd) {
  char slave[256];
  return watch_fd >= 0 && ptsname_r(device_fd, slave, sizeof slave) == 0 &&
         inotify_add_watch(watch_fd, slave, IN_OPEN) >= 0;
}

}  // namespace

CSerialService::CSerialService(Component::CDBusChannel* dbus_channel, Component::CConfigAgent* config_agent)
    : CThread("serial_service_thread", POLICY_NORMAL, 64, 0),
      dbus_channel(dbus_channel),
      config_agent(config_agent),
      m_wake_fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_clock(&Platform::tickMs) {
  if (m_wake_fd < 0) TC_LOG(3, "CSerialService, eventfd error: %s", strerror(errno));
  dbus_channel->register_method(kStatusMethod,
                                CDBusMethodHandler(this, &CSerialService::serial_port_connect_status), "", "s");
}

CSerialService::~CSerialService() {
  stop();
  dbus_channel->register_method(kStatusMethod, CDBusMethodHandler());
  release_devices();
  if (m_wake_fd >= 0) close(m_wake_fd);
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
  wake();
  CThread::stop();
}

void CSerialService::wake() {
  const uint64_t one = 1;
  if (m_wake_fd >= 0) (void)!write(m_wake_fd, &one, sizeof one);
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
  wake();
}

void CSerialService::serial_port_connect_status(DBus::CDBusMethodCall& /*call*/, DBus::CDBusMethodReturn& reply) {
  std::string status;
  {
    CMutexGuard guard(&m_devices_lock);
    char line[kStatusLineSize];
    for (const CSerialLink* device : devices) {
      const char* format = device->state() == kSerialEstablished
                               ? "\033[32m[%s] <--> [%s:%s], Connect Successfully\033[0m\n"
                               : "\033[33m[%s] <--> [%s:%s], Connect Failed\033[0m\n";
      const SerialDeviceConfig& c = device->config();
      snprintf(line, kStatusLineSize - 1, format, c.local_device.c_str(), c.ip.c_str(), c.device.c_str());
      status += line;
    }
  }
  reply.set_string(status);
}

Json::Value CSerialService::statistics() {
  if (running.load()) m_stats_request.ask([this] { wake(); }, kStatsWaitMs);
  std::vector<SerialLinkStats> stats;
  {
    CMutexGuard guard(&m_devices_lock);
    stats = m_stats;
  }
  Json::Value list(Json::arrayValue);
  for (const SerialLinkStats& s : stats) {
    Json::Value item(Json::objectValue);
    item["local_device"] = s.config.local_device;
    item["ip"] = s.config.ip;
    item["device"] = s.config.device;
    item["state"] = state_name(s.state);
    item["state_ms"] = Json::UInt64(s.state_ms);
    item["bytes_to_peer"] = Json::UInt64(s.bytes_to_peer);
    item["bytes_to_device"] = Json::UInt64(s.bytes_to_device);
    item["frames_to_peer"] = Json::UInt64(s.frames_to_peer);
    item["frames_to_device"] = Json::UInt64(s.frames_to_device);
    item["connects"] = Json::UInt64(s.connects);
    item["drops"] = Json::UInt64(s.drops);
    item["last_drop"] = s.last_drop ? s.last_drop : "";
    item["keepalive_ms"] = Json::Int64(s.keepalive_ms);
    list.append(item);
  }
  return list;
}

void CSerialService::publish_stats(const DeviceList& devices, uint64_t now) {
  {
    CMutexGuard guard(&m_devices_lock);
    m_stats.clear();
    for (const CSerialLink* device : devices) m_stats.push_back(device->stats(now));
  }
  m_stats_request.answered();
}

void CSerialService::release_devices() {
  CMutexGuard guard(&m_devices_lock);
  for (CSerialLink* device : devices) close_device(m_epoll_fd, device);
  devices.clear();
  for (int* fd : {&m_epoll_fd, &m_open_watch_fd}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void CSerialService::threadProc() {
  // Leftovers of an earlier run (start after stop) would otherwise leak.
  release_devices();
  const int epfd = epoll_create(kEpollSize);
  if (epfd < 0) TC_LOG(3, "threadProc, epoll_create error: %s", strerror(errno));
  m_epoll_fd = epfd;
  // Without it, device files count as always read (bytes go in as they come).
  m_open_watch_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (m_open_watch_fd < 0) TC_LOG(2, "threadProc, inotify_init1 error: %s", strerror(errno));
  if (m_open_watch_fd >= 0) epoll_add(epfd, m_open_watch_fd);
  // Not for writing: an eventfd is always writable, and that edge would cost
  // one more pass after every wake-up.
  if (m_wake_fd >= 0) epoll_add(epfd, m_wake_fd, false);
  epoll_event events[kMaxEvents];
  uint64_t last_connect = 0;
  uint64_t last_keepalive_check = 0;
  uint64_t now = m_clock();

  while (running.load() && isRunning()) {
    // A reload sweeps in the same pass, even while the tick is still below
    // one sweep interval (it restarts near zero when it wraps).
    bool sweep_now = false;
    if (reload.exchange(false)) {
      reload_devices(epfd, devices);
      last_connect = 0;
      sweep_now = true;
    }

    const int n = epoll_wait(epfd, events, kMaxEvents,
                             sweep_now ? 0 : wait_ms(devices, now, last_connect, last_keepalive_check));
    // Without an epoll set the loop still paces itself.
    if (n < 0 && errno != EINTR) sleepMs(1000);
    for (int i = 0; i < n; ++i) {
      const int fd = events[i].data.fd;
      const uint32_t ev = events[i].events;
      if (fd == m_wake_fd) {
        uint64_t count = 0;
        (void)!read(m_wake_fd, &count, sizeof count);
        continue;
      }
      if (fd == m_open_watch_fd) {
        deal_reader(epfd, devices);
        continue;
      }
      // Both edges may come at once: room to write, and bytes to read.
      if (ev & EPOLLOUT) deal_writable(epfd, devices, fd);
      if (ev & EPOLLIN) deal_message(epfd, devices, fd);
      if (!(ev & (EPOLLIN | EPOLLOUT))) deal_error(epfd, devices, fd);
      // A device file whose last program closed it hangs up.
      if (ev & EPOLLHUP) deal_reader(epfd, devices);
    }

    now = m_clock();
    if (sweep_now || now - last_connect > kConnectSweepMs) {
      last_connect = now;
      do_connect(epfd, devices);
    }
    if (now - last_keepalive_check > kKeepaliveCheckMs) {
      last_keepalive_check = now;
      check_keepalive(epfd, devices, now);
    }
    for (const CSerialLink* device : devices) {
      const uint64_t due = device->settle_due();
      if (due != 0 && due <= now) {
        deal_reader(epfd, devices);
        break;
      }
    }
    if (m_stats_request.wanted()) publish_stats(devices, now);
  }
}

int CSerialService::wait_ms(const DeviceList& devices, uint64_t now, uint64_t last_connect,
                            uint64_t last_keepalive_check) const {
  // The sweep and the check run once their interval is exceeded.
  uint64_t due = last_connect + kConnectSweepMs + 1;
  if (last_keepalive_check + kKeepaliveCheckMs + 1 < due) due = last_keepalive_check + kKeepaliveCheckMs + 1;
  for (const CSerialLink* device : devices) {
    const uint64_t settle = device->settle_due();
    if (settle != 0 && settle < due) due = settle;
  }
  // The tick moves in steps; waking a step late beats waking twice.
  if (due <= now) return 0;
  const uint64_t wait = due - now + kTickStepMs;
  return wait > static_cast<uint64_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(wait);
}

void CSerialService::reload_devices(int epfd, DeviceList& devices) {
  CMutexGuard configured_guard(&m_configured_lock);
  CMutexGuard devices_guard(&m_devices_lock);

  for (auto it = devices.begin(); it != devices.end();) {
    CSerialLink* device = *it;
    if (listed(configured, device->config())) {
      ++it;
      continue;
    }
    const SerialDeviceConfig& c = device->config();
    TC_LOG(1, "delete device, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
           static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
    close_device(epfd, device);
    it = devices.erase(it);
  }

  for (const SerialDeviceConfig* record : configured) {
    if (live(devices, *record)) continue;
    // Another live device (of either bridge) keeps its device file.
    if (!CDevicePaths::shared().claim(record->local_device)) {
      TC_LOG(2, "add device, device file %s is in use, skip", record->local_device.c_str());
      continue;
    }
    const int device_fd = create_device_file(record->local_device);
    if (device_fd < 0) {
      TC_LOG(2, "add device, create_device_file fail dev_file:%s", record->local_device.c_str());
      CDevicePaths::shared().release(record->local_device);
      continue;
    }
    if (epoll_add(epfd, device_fd) < 0) {
      TC_LOG(2, "add device, epoll add [%d] [%d] fail", epfd, device_fd);
      close(device_fd);
      CDevicePaths::shared().release(record->local_device);
      continue;
    }
    CSerialLink* device = new (std::nothrow) CSerialLink(*record, device_fd, epfd, m_clock);
    if (!device) {
      epoll_del(epfd, device_fd);
      close(device_fd);
      CDevicePaths::shared().release(record->local_device);
      continue;
    }
    // Untracked, the device file counts as read by someone.
    if (watch_opens(m_open_watch_fd, device_fd)) device->track_reader();
    const SerialDeviceConfig& c = device->config();
    TC_LOG(1, "add device, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
           static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
    devices.push_back(device);
  }
}

void CSerialService::do_connect(int epfd, DeviceList& devices) {
  for (CSerialLink* device : devices) {
    if (device->state() == kSerialEstablished) continue;
    if (device->socket_fd() > 0) {
      epoll_del(epfd, device->socket_fd());
      close(device->socket_fd());
    }
    device->detach();

    const int fd = create_tcp(kLocalIp, 0);
    if (fd < 0) {
      TC_LOG(2, "do connect, create_tcp fail");
      continue;
    }
    device->attach(fd);
    // Each frame is written whole; a small one must not wait for the
    // acknowledgement of the previous one (up to the peer's delayed ack).
    const int nodelay = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof(nodelay));
    // Unsent bytes stay few in the kernel (in flight is up to the peer's
    // window): a stalled peer holds the device file's writer back after
    // kilobytes, as a serial line would, not after megabytes of send buffer.
    setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kUnsentLowWater, sizeof(kUnsentLowWater));
    const SerialDeviceConfig& c = device->config();
    TC_LOG(1, "do connect, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(), c.device.c_str(),
           static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(), c.flow_control);
    // A socket whose connect failed is kept; the next sweep closes it.
    if (connect_tcp(fd, c.ip, kRemotePort) < 0) {
      TC_LOG(2, "do connect, connect tcp %s:%d fail", c.ip.c_str(), kRemotePort);
      continue;
    }
    if (epoll_add(epfd, fd) < 0) TC_LOG(2, "do connect, epoll add [%d] [%d] fail", epfd, fd);
  }
}

void CSerialService::deal_connect(int /*epfd*/, DeviceList& devices, int fd) {
  CSerialLink* device = find_by_socket(devices, fd);
  // Later writable edges of an open connection are deal_writable's.
  if (!device || device->state() != kSerialIdle) return;
  device->deal_connect();
}

void CSerialService::deal_writable(int epfd, DeviceList& devices, int fd) {
  for (CSerialLink* device : devices) {
    if (device->socket_fd() == fd) {
      if (device->state() == kSerialIdle) {
        deal_connect(epfd, devices, fd);
      } else if (!device->deal_socket_room()) {
        deal_error(epfd, devices, fd);
      }
      return;
    }
    if (device->device_fd() == fd) {
      if (!device->deal_device_room()) deal_error(epfd, devices, device->socket_fd());
      return;
    }
  }
}

void CSerialService::deal_message(int epfd, DeviceList& devices, int fd) {
  for (CSerialLink* device : devices) {
    if (device->socket_fd() == fd) {
      if (!device->deal_message()) deal_error(epfd, devices, fd);
      return;
    }
    if (device->device_fd() == fd) {
      deal_device_message(epfd, devices, device);
      return;
    }
  }
}

void CSerialService::deal_device_message(int epfd, DeviceList& devices, CSerialLink* device) {
  if (!device->deal_device_message()) deal_error(epfd, devices, device->socket_fd());
}

void CSerialService::deal_reader(int epfd, DeviceList& devices) {
  // The events only say that something happened; each link looks for itself.
  char events[4096];
  while (m_open_watch_fd >= 0 && read(m_open_watch_fd, events, sizeof events) > 0) {
  }
  for (CSerialLink* device : devices) {
    device->check_reader();
    if (!device->deal_device_room()) deal_error(epfd, devices, device->socket_fd());
  }
}

void CSerialService::deal_error(int epfd, DeviceList& devices, int fd) {
  // Events on device files land here too and are ignored.
  CSerialLink* device = find_by_socket(devices, fd);
  if (!device) return;
  const SerialDeviceConfig& c = device->config();
  // The reason of a drop whose fault the link did not note itself.
  const char* reason = nullptr;
  TC_LINK_FAULT(reason, 1, "deal error, %s %s:%s %d:%d:%d:%s:%d", c.local_device.c_str(), c.ip.c_str(),
                c.device.c_str(), static_cast<int32_t>(c.baud_rate), c.data_bit, c.stop_bit, c.parity.c_str(),
                c.flow_control);
  epoll_del(epfd, fd);
  close(fd);
  device->detach(reason);
}

void CSerialService::check_keepalive(int epfd, DeviceList& devices, uint64_t now) {
  for (CSerialLink* device : devices) {
    // While the link holds the peer back, its keep-alives wait unread in TCP.
    if (device->state() != kSerialEstablished || device->holding_peer()) continue;
    const SerialDeviceConfig& c = device->config();
    const int32_t elapsed = device->silent_ms(now);
    TC_LOG(0, "check keepalive, [%s:%s] --> [%s], interval: %d ms", c.ip.c_str(), c.device.c_str(),
           c.local_device.c_str(), elapsed);
    if (elapsed >= kKeepaliveTimeoutMs) {
      const char* fault = nullptr;
      TC_LINK_FAULT(fault, 2, "check keepalive, keepalive timeout [%s:%s] --> [%s]", c.ip.c_str(), c.device.c_str(),
                    c.local_device.c_str());
      device->note_fault(fault);
      deal_error(epfd, devices, device->socket_fd());
    }
  }
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
