#include "service/lora_lan.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>

#include "common/json/json_text.h"
#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "service/common.h"
#include "service/device_paths.h"

// The loop's steps live in helpers, but their lines belong to threadProc.
#define TC_LOOP_LOG(level, ...) \
  log_print((level), nullptr, nullptr, __FILE__, "threadProc", __LINE__, __VA_ARGS__)
// Logs why an uplink was not delivered and keeps the text, the literal
// itself, as the device's last refusal.
#define TC_LOOP_REFUSAL(slot, level, format, ...) \
  do {                                            \
    TC_LOOP_LOG((level), format, __VA_ARGS__);    \
    (slot) = (format);                            \
  } while (0)

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

using Platform::CMutexGuard;

namespace {

const char* const kModeKey = "gw_tc_loralan_mode";
const char* const kDevicesKey = "gw_tc_loralan_devices";
const char* const kIntervalKey = "gw_tc_loralan_down_packet_interval";
constexpr uint32_t kConfigTimeoutMs = 3000;
constexpr int32_t kDefaultInterval = 3500;
constexpr int kMaxEvents = 1024;
// A busy loop answers within a pass; a stuck one must not hold the bus thread.
constexpr uint32_t kStatsWaitMs = 1000;

bool config_read(int32_t result) {
  return result == 0 || result == Component::CConfigAgent::kNoValue;
}

// The interval a configuration value gives: the default when empty, else its
// leading decimal digits.  False for text without digits, a negative number,
// or one past 32 bits; `interval` is then left alone.
bool interval_from(const std::string& value, int32_t& interval) {
  if (value.empty()) {
    interval = kDefaultInterval;
    return true;
  }
  const char* text = value.c_str();
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(text, &end, 10);
  if (end == text || errno == ERANGE || number < 0 || number > INT32_MAX) return false;
  interval = static_cast<int32_t>(number);
  return true;
}

const char* bool_text(bool value) { return value ? "true" : "false"; }

// Registration is edge-triggered, so every descriptor is read until this says
// nothing is left; asking first keeps the last read from failing.
bool has_input(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0;
}

}  // namespace

CLoraLan::CLoraLan(Component::CConfigAgent* agent)
    : CThread("lora_lan_thread", POLICY_NORMAL, 64, 0), m_agent(agent), m_devices_lock("lora_lan_devices") {}

CLoraLan::~CLoraLan() {
  end_loop();
  close_udp_socket();
}

int CLoraLan::start() {
  if (m_running) return 1;

  std::string mode;
  int32_t result = m_agent->get_config(kModeKey, mode, kConfigTimeoutMs);
  if (!config_read(result)) {
    TC_LOG(2, "start, get config [%s] fail.", kModeKey);
    return 0;
  }
  TC_LOG(1, "start, get config %s:%s", kModeKey, mode.c_str());
  // Another mode leaves the bridge idle for good.
  if (!mode.empty() && mode != "pts") return 1;

  std::string devices;
  result = m_agent->get_config(kDevicesKey, devices, kConfigTimeoutMs);
  if (!config_read(result)) {
    TC_LOG(2, "start, get config [%s] fail.", kDevicesKey);
    return 0;
  }
  TC_LOG(1, "start, get config %s:%s", kDevicesKey, devices.c_str());

  std::string interval;
  result = m_agent->get_config(kIntervalKey, interval, kConfigTimeoutMs);
  if (!config_read(result)) {
    TC_LOG(2, "start, get config [%s] fail.", kIntervalKey);
    return 0;
  }
  TC_LOG(1, "start, get config %s:%s", kIntervalKey, interval.c_str());
  // A bad value must not keep the bridge (and the components after it) down.
  int32_t ms = m_down_packet_interval;
  if (!interval_from(interval, ms)) {
    TC_LOG(2, "start, [%s] is not a number of milliseconds, keep %d", kIntervalKey, static_cast<int>(ms));
  }
  m_down_packet_interval = ms;

  const int fd = create_udp(LORA_LAN_IP, LORA_LAN_LOCAL_PORT, 0);
  if (fd < 0) {
    TC_LOG(2, "start, create udp port fail.");
    return 0;
  }
  m_udp_socket = fd;
  TC_LOG(2, "start, create %s:%d success", LORA_LAN_IP, static_cast<int>(LORA_LAN_LOCAL_PORT));

  if (!devices.empty()) {
    LoraLanDeviceList list;
    const bool parsed = deal_device_change_config(devices, list);
    {
      CMutexGuard guard(&m_devices_lock);
      m_devices.swap(list);
    }
    if (!parsed) {
      TC_LOG(2, "start, deal_device_change_config fail.");
      close_udp_socket();
      return 0;
    }
  }

  m_devices_changed = true;
  m_running = true;
  if (!CThread::start()) {
    TC_LOG(2, "start, createThread fail.");
    close_udp_socket();
    m_devices_changed = false;
    m_running = false;
    return 0;
  }

  m_agent->subscribe_config(
      kIntervalKey, Component::CConfigCallback(this, &CLoraLan::deal_down_packet_interval_change_config), 1,
      kConfigTimeoutMs);
  return 1;
}

void CLoraLan::stop() {
  // Later changes of the interval reach nothing.
  m_agent->subscribe_config(kIntervalKey, Component::CConfigCallback(), 1, kConfigTimeoutMs);
  end_loop();
  close_udp_socket();
}

void CLoraLan::end_loop() {
  m_running = false;
  m_wakeup.wake();
  CThread::stop();
}

void CLoraLan::close_udp_socket() {
  const int fd = m_udp_socket.exchange(-1);
  if (fd > 0) close(fd);
}

void CLoraLan::config_change_callback(const std::string& key, const std::string& value, int& /*extra*/) {
  if (key != kDevicesKey) return;
  LoraLanDeviceList list;
  deal_device_change_config(value, list);
  {
    CMutexGuard guard(&m_devices_lock);
    m_devices.swap(list);
  }
  // Raised only once the new list is in place: the loop reads it after the flag.
  m_devices_changed = true;
  m_wakeup.wake();
}

bool CLoraLan::deal_device_change_config(const std::string& value, LoraLanDeviceList& devices) {
  devices.clear();
  if (value.empty()) return true;

  Json::Value root;
  if (!Platform::string_to_json(value, root)) {
    TC_LOG(2, "deal_device_change_config, convert to json fail.");
    return false;
  }
  if (!root.isArray()) {
    TC_LOG(2, "deal_device_change_config, config is not array format.");
    return false;
  }
  for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
    const Json::Value& item = root[i];
    auto device = std::make_unique<LoraLanDevice>();
    device->dev_file = Platform::json_get_string(item, "devFile", "");
    const std::string eui = Platform::json_get_string(item, "devEUI", "");
    device->up_fport = Platform::json_get_int(item, "upFport", -1);
    device->down_fport = Platform::json_get_int(item, "downFport", 10);
    device->confirmed = Platform::json_get_bool(item, "confirmed", false);
    if (device->dev_file.empty() || eui.empty()) {
      std::string text;
      Platform::json_to_string(item, text, true);
      TC_LOG(2, "deal_device_change_config, parameter error item[%d]:%s", static_cast<int>(i), text.c_str());
      continue;
    }
    device->dev_eui = to_upper(eui);
    TC_LOG(1, "deal_device_change_config, load device pair %s:%s %d %d %s", device->dev_file.c_str(), eui.c_str(),
           device->up_fport, device->down_fport, bool_text(device->confirmed));
    devices.push_back(std::move(device));
  }
  return true;
}

void CLoraLan::deal_down_packet_interval_change_config(const std::string& key, const std::string& value,
                                                       int& extra) {
  if (key != kIntervalKey) return;
  TC_LOG(1, "deal_down_packet_interval_change_config, %s:%s", key.c_str(), value.c_str());
  int32_t ms = m_down_packet_interval;
  if (!interval_from(value, ms)) {
    TC_LOG(2, "deal_down_packet_interval_change_config, [%s] is not a number of milliseconds, keep %d",
           kIntervalKey, static_cast<int>(ms));
    extra = Component::CConfigAgent::kValueRefused;
    return;
  }
  m_down_packet_interval = ms;
  m_wakeup.wake();
}

int CLoraLan::recv_lora_message(int fd, std::string& data, std::string& dev_eui, int32_t& fport) {
  const int n = recv_udp(fd, m_recv_buffer, LORA_LAN_MAX_DATAGRAM);
  if (n <= 0) {
    TC_LOG(2, "recv_lora_message, recv_udp error fd:%d nread:%d", fd, n);
    return 0;
  }
  m_recv_buffer[n] = '\0';
  TC_LOG(0, "recv_lora_message, fd:%d nread:%d buffer:%s", fd, n, m_recv_buffer);

  const LoraLanDatagram d = parse_lora_lan_datagram(std::string(m_recv_buffer, static_cast<size_t>(n)));
  switch (d.kind) {
    case LoraLanDatagramKind::not_json:
      return 1;
    case LoraLanDatagramKind::result:
      if (d.result != 0) TC_LOG(2, "recv_lora_message, send response error result:%d", d.result);
      return 1;
    default:
      break;
  }
  fport = d.fport;
  switch (d.kind) {
    case LoraLanDatagramKind::missing_member:
      TC_LOG(2, "recv_lora_message, json format error devEui:%s data:%s mtype:%d fport:%d", d.dev_eui.c_str(),
             d.data.c_str(), d.mtype, d.fport);
      return 0;
    case LoraLanDatagramKind::bad_mtype:
      TC_LOG(2, "recv_lora_message, lora format error mtype:%d", d.mtype);
      return 0;
    case LoraLanDatagramKind::bad_fport:
      TC_LOG(2, "recv_lora_message, lora format error fport:%d", d.fport);
      return 0;
    default:
      break;
  }
  dev_eui = to_upper(d.dev_eui);
  hex_to_bytes(d.data, data);
  return 1;
}

bool CLoraLan::send_lora_message(const std::string& payload, const std::string& dev_eui, int32_t down_fport,
                                 bool confirmed, const std::shared_ptr<LoraLanCounters>& counters) {
  if (m_down_packet_queue.size() >= m_down_packet_queue_limit) {
    TC_LOG(2, "send_lora_message, down packet queue too long, size:%d", static_cast<int>(m_down_packet_queue.size()));
    if (m_down_packet_queue.front().counters) ++m_down_packet_queue.front().counters->downlinks_dropped;
    m_down_packet_queue.pop_front();
  }
  m_down_packet_queue.push_back(DownPacket{build_lora_lan_downlink(payload, dev_eui, down_fport, confirmed), counters});
  if (counters) ++counters->downlinks_queued;
  return true;
}

void CLoraLan::send_lora_message(int fd, const std::string& message) {
  const int length = static_cast<int>(message.size());
  TC_LOG(0, "send_lora_message, fd:%d length:%d message:%s", fd, length, message.c_str());
  errno = 0;  // a short send sets no errno; don't report a stale one
  const int n = send_udp(fd, message.data(), length, LORA_LAN_IP, LORA_LAN_SERVER_PORT);
  if (n != length) {
    TC_LOG(2, "send_lora_message, send_udp error fd:%d nwrite:%d size:%d error:%s", fd, n, length, strerror(errno));
  }
}

void CLoraLan::threadProc() {
  const int epfd = epoll_create(kMaxEvents);
  if (epfd < 0) {
    TC_LOG(3, "threadProc, epoll_create error: %s", strerror(errno));
    return;
  }
  // Level-triggered and for reading only, unlike the channels: drained when it fires.
  epoll_event wake{};
  wake.events = EPOLLIN;
  wake.data.fd = m_wakeup.fd();
  if (epoll_ctl(epfd, EPOLL_CTL_ADD, m_wakeup.fd(), &wake) < 0) {
    TC_LOG(3, "threadProc, no wake-up descriptor: %s", strerror(errno));
    close(epfd);
    return;
  }
  std::unique_ptr<epoll_event[]> events(new epoll_event[kMaxEvents]);
  const int udp = m_udp_socket;
  epoll_add(epfd, udp);
  OpenDevices open;

  while (m_running && isRunning()) {
    // Cleared first: a change arriving meanwhile is handled in the next pass.
    if (m_devices_changed.exchange(false)) reconcile_devices(epfd, open);
    const int count = epoll_wait(epfd, events.get(), kMaxEvents, next_wait_ms());
    if (count > 0) handle_events(events.get(), count, open);
    pace_down_packets();
    if (m_stats_request.wanted()) publish_stats(open);
  }

  close_devices(epfd, open);
  epoll_del(epfd, udp);
  close(epfd);
}

void CLoraLan::reconcile_devices(int epfd, OpenDevices& open) {
  std::vector<LoraLanDevice> configured;
  {
    CMutexGuard guard(&m_devices_lock);
    for (const auto& device : m_devices) configured.push_back(*device);
  }

  // A device stays only when all five settings still match...
  for (auto it = open.begin(); it != open.end();) {
    const LoraLanDevice& device = *it->second;
    bool kept = false;
    for (const auto& item : configured) kept = kept || item == device;
    if (kept) {
      ++it;
      continue;
    }
    TC_LOOP_LOG(1, "threadProc, delete device fd:%d, dev_file:%s, dev_eui:%s, up_fport:%d, down_fport:%d, confirmed:%s",
                it->first, device.dev_file.c_str(), device.dev_eui.c_str(), device.up_fport, device.down_fport,
                bool_text(device.confirmed));
    epoll_del(epfd, it->first);
    close(it->first);
    unlink(device.dev_file.c_str());
    CDevicePaths::shared().release(device.dev_file);
    it = open.erase(it);
  }

  // ...but is added only when no open one has its file and EUI, so a change
  // of a port or of "confirmed" re-creates the file under the same path.
  for (const auto& item : configured) {
    bool present = false;
    for (const auto& entry : open) {
      present = present || (entry.second->dev_file == item.dev_file && entry.second->dev_eui == item.dev_eui);
    }
    if (present) continue;
    // Another live device (of either bridge) keeps its device file.
    if (!CDevicePaths::shared().claim(item.dev_file)) {
      TC_LOOP_LOG(2, "threadProc, device file %s is in use, skip", item.dev_file.c_str());
      continue;
    }
    const int fd = create_device_file(item.dev_file);
    if (fd < 0) {
      TC_LOOP_LOG(2, "threadProc, create_device_file fail dev_file:%s", item.dev_file.c_str());
      CDevicePaths::shared().release(item.dev_file);
      continue;
    }
    open[fd] = std::make_unique<LoraLanDevice>(item);
    open[fd]->counters = std::make_shared<LoraLanCounters>();
    epoll_add(epfd, fd);
    TC_LOOP_LOG(1, "threadProc, add device fd:%d, dev_file:%s, dev_eui:%s, up_fport:%d, down_fport:%d, confirmed:%s",
                fd, item.dev_file.c_str(), item.dev_eui.c_str(), item.up_fport, item.down_fport,
                bool_text(item.confirmed));
  }
}

void CLoraLan::handle_events(const epoll_event* events, int count, OpenDevices& open) {
  const int udp = m_udp_socket;
  std::vector<Uplink> uplinks;
  std::set<int> readable;
  for (int i = 0; i < count; ++i) {
    if ((events[i].events & EPOLLIN) == 0) continue;
    if (events[i].data.fd == m_wakeup.fd()) {
      m_wakeup.drain();
    } else if (events[i].data.fd == udp) {
      drain_socket(udp, uplinks);
    } else {
      readable.insert(events[i].data.fd);
    }
  }
  for (const auto& entry : open) {
    if (readable.count(entry.first) != 0) drain_device_file(entry.first, *entry.second);
    for (const auto& uplink : uplinks) deliver_uplink(entry.first, *entry.second, uplink);
  }
}

void CLoraLan::drain_socket(int fd, std::vector<Uplink>& uplinks) {
  while (has_input(fd)) {
    Uplink uplink;
    if (recv_lora_message(fd, uplink.data, uplink.dev_eui, uplink.fport) <= 0) {
      TC_LOOP_LOG(2, "threadProc, recv_lora_message error, fd:%d", fd);
      continue;
    }
    // Results and unreadable datagrams leave the EUI empty.
    if (!uplink.dev_eui.empty()) uplinks.push_back(std::move(uplink));
  }
}

void CLoraLan::drain_device_file(int fd, const LoraLanDevice& device) {
  std::string chunk;
  while (has_input(fd)) {
    if (!recv_file(fd, chunk)) {
      TC_LOOP_LOG(2, "threadProc, recv_file error, fd:%d dev_file:%s", fd, device.dev_file.c_str());
      return;
    }
    if (!send_lora_message(chunk, device.dev_eui, device.down_fport, device.confirmed, device.counters)) {
      TC_LOOP_LOG(2, "threadProc, send_lora_message error, fd:%d dev_file:%s dev_eui:%s",
                  static_cast<int>(m_udp_socket), device.dev_file.c_str(), device.dev_eui.c_str());
    }
  }
}

void CLoraLan::deliver_uplink(int fd, const LoraLanDevice& device, const Uplink& uplink) {
  if (uplink.dev_eui.empty() || uplink.dev_eui != device.dev_eui) return;
  LoraLanCounters& counters = *device.counters;
  if (device.up_fport != -1 && device.up_fport != uplink.fport) {
    ++counters.uplinks_refused;
    counters.last_refusal = "uplink FPort is not its upFport";
    return;
  }
  if (send_file(fd, uplink.data) <= 0) {
    ++counters.uplinks_refused;
    TC_LOOP_REFUSAL(counters.last_refusal, 2, "threadProc, send_file error, fd:%d dev_file:%s", fd,
                    device.dev_file.c_str());
    return;
  }
  ++counters.uplinks;
}

void CLoraLan::pace_down_packets() {
  if (m_down_packet_queue.empty()) return;
  const uint64_t now = Platform::tickMs();
  // Re-read at every check, so a new interval applies to the next datagram.
  const int64_t interval = m_down_packet_interval;
  if (static_cast<int64_t>(m_last_send_time) + interval > static_cast<int64_t>(now)) return;
  const DownPacket& packet = m_down_packet_queue.front();
  send_lora_message(m_udp_socket, packet.text);
  if (packet.counters) ++packet.counters->downlinks_sent;
  m_down_packet_queue.pop_front();
  m_last_send_time = now;
}

int CLoraLan::next_wait_ms() const {
  if (m_down_packet_queue.empty()) return -1;
  const int64_t due = static_cast<int64_t>(m_last_send_time) + m_down_packet_interval;
  const int64_t wait = due - static_cast<int64_t>(Platform::tickMs());
  return static_cast<int>(std::min<int64_t>(std::max<int64_t>(wait, 0), INT32_MAX));
}

Json::Value CLoraLan::statistics() {
  if (m_running) m_stats_request.ask([this] { m_wakeup.wake(); }, kStatsWaitMs);
  std::vector<DeviceStats> stats;
  {
    CMutexGuard guard(&m_devices_lock);
    stats = m_stats;
  }
  Json::Value list(Json::arrayValue);
  for (const DeviceStats& s : stats) {
    Json::Value item(Json::objectValue);
    item["dev_file"] = s.dev_file;
    item["dev_eui"] = s.dev_eui;
    item["uplinks"] = Json::UInt64(s.counters.uplinks);
    item["uplinks_refused"] = Json::UInt64(s.counters.uplinks_refused);
    item["last_refusal"] = s.counters.last_refusal ? s.counters.last_refusal : "";
    item["downlinks_queued"] = Json::UInt64(s.counters.downlinks_queued);
    item["downlinks_sent"] = Json::UInt64(s.counters.downlinks_sent);
    item["downlinks_dropped"] = Json::UInt64(s.counters.downlinks_dropped);
    item["queue_depth"] = Json::UInt64(s.queue_depth);
    list.append(item);
  }
  return list;
}

void CLoraLan::publish_stats(const OpenDevices& open) {
  {
    CMutexGuard guard(&m_devices_lock);
    m_stats.clear();
    for (const auto& entry : open) {
      const LoraLanDevice& device = *entry.second;
      DeviceStats s{device.dev_file, device.dev_eui, *device.counters, 0};
      for (const DownPacket& packet : m_down_packet_queue) s.queue_depth += packet.counters == device.counters;
      m_stats.push_back(s);
    }
  }
  m_stats_request.answered();
}

void CLoraLan::close_devices(int epfd, OpenDevices& open) {
  // The paths stay on disk; the next run re-creates the links.
  for (const auto& entry : open) {
    epoll_del(epfd, entry.first);
    close(entry.first);
    CDevicePaths::shared().release(entry.second->dev_file);
  }
  open.clear();
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
