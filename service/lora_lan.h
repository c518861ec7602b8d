#pragma once
// CLoraLan: the LoRa LAN bridge.  Every configured device gets a device file
// (a link to a pseudo-terminal); what a program writes there leaves as a paced
// downlink datagram to the LoRa LAN server on this host, and every uplink of
// the matching LoRa device is written back into the file.  One thread
// ("lora_lan_thread") serves all files and the server socket.

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/lock/Wakeup.h"
#include "common/platform/src/thread/Thread.h"
#include "component/config_agent.h"
#include "service/lora_lan_device.h"
#include "service/lora_lan_message.h"
#include "service/snapshot_request.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

class CLoraLan : public Platform::CThread {
 public:
  // The agent is not owned and must outlive the bridge.  No I/O here.
  explicit CLoraLan(Component::CConfigAgent* agent);
  // Ends a loop that stop() was not called for, and closes what is still open.
  ~CLoraLan() override;

  // 1 running, or deliberately idle (mode other than "pts"); 0 failed, retry.
  // A down-packet interval that is not a number keeps the one in force.
  int start();
  // Safe when never started.
  void stop();

  // Forwarded changes of the LoRa keys; reacts to the device list only.
  void config_change_callback(const std::string& key, const std::string& value, int& extra);
  // Empties `devices`, then fills it from the JSON array `value`.  False for a
  // value that is not a JSON array; items without file or EUI are skipped.
  bool deal_device_change_config(const std::string& value, LoraLanDeviceList& devices);
  // Subscription callback of the interval; a value that is not a number is
  // answered with CConfigAgent::kValueRefused and changes nothing.
  void deal_down_packet_interval_change_config(const std::string& key, const std::string& value, int& extra);

  // Every open device's counters and queue depth, as one pass of the loop
  // saw them: an array of objects.  Waits a moment for the loop.
  Json::Value statistics();

 protected:
  void threadProc() override;

 private:
  using OpenDevices = std::map<int, std::unique_ptr<LoraLanDevice>>;
  struct DownPacket {
    std::string text;
    std::shared_ptr<LoraLanCounters> counters;
  };
  struct DeviceStats {
    std::string dev_file;
    std::string dev_eui;
    LoraLanCounters counters;
    uint64_t queue_depth = 0;
  };
  struct Uplink {
    std::string dev_eui;
    std::string data;
    int32_t fport = -1;
  };

  // Loop thread only, from here on.
  // Reads one datagram: 1 handled (an uplink decoded into the outputs, or a
  // result or unreadable datagram consumed), 0 on a receive error or refusal.
  int recv_lora_message(int fd, std::string& data, std::string& dev_eui, int32_t& fport);
  // Queues one downlink built from raw payload bytes, dropping the oldest
  // waiting one when the queue is full.  Always true.
  bool send_lora_message(const std::string& payload, const std::string& dev_eui, int32_t down_fport,
                         bool confirmed, const std::shared_ptr<LoraLanCounters>& counters = nullptr);
  // Sends one queued downlink text to the server.
  void send_lora_message(int fd, const std::string& message);

  void reconcile_devices(int epfd, OpenDevices& open);
  void handle_events(const epoll_event* events, int count, OpenDevices& open);
  void drain_socket(int fd, std::vector<Uplink>& uplinks);
  void drain_device_file(int fd, const LoraLanDevice& device);
  void deliver_uplink(int fd, const LoraLanDevice& device, const Uplink& uplink);
  void pace_down_packets();
  // Until the next downlink may leave; -1 with none waiting.
  int next_wait_ms() const;
  void close_devices(int epfd, OpenDevices& open);
  void publish_stats(const OpenDevices& open);
  void end_loop();
  void close_udp_socket();

  Component::CConfigAgent* m_agent;
  // Hands a rebuilt list from the notification thread to the loop.
  Platform::CMutex m_devices_lock;
  LoraLanDeviceList m_devices;
  std::atomic<bool> m_running{false};
  std::atomic<bool> m_devices_changed{false};
  // Ends the loop's sleep at once: a configuration change, or stop.
  Platform::CWakeup m_wakeup;
  std::atomic<int> m_udp_socket{-1};
  std::atomic<int32_t> m_down_packet_interval{3500};
  uint64_t m_last_send_time = 0;
  std::deque<DownPacket> m_down_packet_queue;
  size_t m_down_packet_queue_limit = 32;
  char m_recv_buffer[LORA_LAN_MAX_DATAGRAM + 1] = {};
  // statistics() asks, the loop answers after its pass: the counters are its
  // own, so the data path takes no lock.
  CSnapshotRequest m_stats_request;
  std::vector<DeviceStats> m_stats;  // under m_devices_lock
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
