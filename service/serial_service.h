#pragma once
// CSerialService: the serial bridge.  For every configured device it keeps a
// local device file and one TCP connection to port 5656 of the remote
// gateway (a CSerialLink), relays bytes both ways in frames, and repairs
// broken connections in connect sweeps.  One thread, one edge-triggered epoll
// set; the thread sleeps until a descriptor is ready or the next sweep or
// keep-alive check is due, and a configuration change or stop wakes it.

#include <atomic>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <json/json.h>

#include "common/dbus/src/dbus_message.h"
#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/thread/Thread.h"
#include "component/config_agent.h"
#include "component/dbus_channel.h"
#include "service/serial_device_config.h"
#include "service/serial_link.h"
#include "service/snapshot_request.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

class CSerialService : public Platform::CThread {
 public:
  using Clock = CSerialLink::Clock;

  // Registers "serial_port_connect_status" with the channel; no I/O.
  CSerialService(Component::CDBusChannel* dbus_channel, Component::CConfigAgent* config_agent);
  // Stops the thread, withdraws the status handler and releases every device
  // (descriptors closed, links removed).
  ~CSerialService() override;

  // Reads and subscribes to "gw_tc_serial_devices", then starts the thread.
  // True when running (at once when already so); false when the configuration
  // could not be read or subscribed to.
  bool start();
  // Ends the loop.  Devices, sockets and links stay as they are.
  void stop();
  // Starts the loop on the configured list as it stands, without reading the
  // configuration; start() ends here.  Tests feed the list through
  // callback_config instead.
  bool start_thread();

  // Configuration change: replaces the configured list, then flags a reload.
  void callback_config(const std::string& key, const std::string& value, int& result);
  // "serial_port_connect_status": one coloured line per live device.
  void serial_port_connect_status(DBus::CDBusMethodCall& call, DBus::CDBusMethodReturn& reply);

  // Every live device's counters, as one pass of the loop saw them: an
  // array of objects.  Waits a moment for the loop; called on the bus thread.
  Json::Value statistics();

  // Time source of every interval; tickMs unless a test sets another before
  // the thread starts.
  void set_clock(Clock clock) { m_clock = clock; }
  // Makes the loop look at its clock at once (a test that moved it).
  void wake();

 protected:
  void threadProc() override;

 private:
  using DeviceList = std::list<CSerialLink*>;

  void reload_devices(int epfd, DeviceList& devices);
  void do_connect(int epfd, DeviceList& devices);
  void deal_connect(int epfd, DeviceList& devices, int fd);
  void deal_message(int epfd, DeviceList& devices, int fd);
  void deal_device_message(int epfd, DeviceList& devices, CSerialLink* device);
  void deal_error(int epfd, DeviceList& devices, int fd);
  void check_keepalive(int epfd, DeviceList& devices, uint64_t now);
  // A socket or device file has room again (or a connection completed).
  void deal_writable(int epfd, DeviceList& devices, int fd);
  // A program opened or closed a device file, or one that opened it has had
  // its moment to set up: held bytes may go to it now.
  void deal_reader(int epfd, DeviceList& devices);
  // Milliseconds from `now` until the next sweep, keep-alive check or reader
  // set-up is due.
  int wait_ms(const DeviceList& devices, uint64_t now, uint64_t last_connect, uint64_t last_keepalive_check) const;

  // Copies every device's counters for statistics().
  void publish_stats(const DeviceList& devices, uint64_t now);

  // Closes every descriptor of every live device and of the loop, removes
  // the links and frees the records.
  void release_devices();

  Component::CDBusChannel* dbus_channel;
  Component::CConfigAgent* config_agent;
  SerialDeviceConfigList configured;
  DeviceList devices;
  std::atomic<bool> running{false};
  std::atomic<bool> reload{false};

  // Guards `configured` while it is replaced and while the service thread reads it.
  Platform::CMutex m_configured_lock;
  // Held while the service thread edits `devices` and while the status method walks it.
  Platform::CMutex m_devices_lock;
  int m_epoll_fd = -1;
  // Opens of the device files (inotify), for the loop.
  int m_open_watch_fd = -1;
  // Written to wake the loop (eventfd); lives as long as the service.
  int m_wake_fd = -1;
  // statistics() asks, the loop answers at the end of its pass: the counters
  // are its own, so the data path takes no lock.
  CSnapshotRequest m_stats_request;
  std::vector<SerialLinkStats> m_stats;  // under m_devices_lock
  Clock m_clock;
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
