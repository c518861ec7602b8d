#pragma once
// CDBusWatchSet: what the reader thread of a connection sleeps on.  libdbus
// says through its watch functions which descriptor to wait on and whether
// for reading, writing or both; other threads wake the sleeper through a
// wake-up descriptor (libdbus's wake-up main function when it queued output it
// could not write at once, and stop).
//
// The reading and writing themselves are left to dbus_connection_read_write:
// a watch is never handed back to libdbus, because a send failing on another
// thread may free it while the reader sleeps.

#include <dbus/dbus.h>
#include <pthread.h>

#include <atomic>
#include <vector>

#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/lock/Wakeup.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

class CDBusWatchSet {
 public:
  CDBusWatchSet() = default;
  // The connection must have been detached first.
  ~CDBusWatchSet() = default;
  CDBusWatchSet(const CDBusWatchSet&) = delete;
  CDBusWatchSet& operator=(const CDBusWatchSet&) = delete;

  // Installs the watch and wake-up functions; false when libdbus refused or
  // there is no wake-up descriptor.
  bool attach(DBusConnection* connection);
  // Removes them again; libdbus calls nothing of this object afterwards.
  void detach(DBusConnection* connection);
  void wake();
  // Sleeps until a watched descriptor is ready, wake() was called (since the
  // last wait), or timeoutMs have passed; -1 waits without limit.
  void wait(int timeoutMs);

 private:
  struct Watch {
    DBusWatch* watch;
    int fd;
    short events;
  };

  static dbus_bool_t add_watch(DBusWatch* watch, void* data);
  static void remove_watch(DBusWatch* watch, void* data);
  static void toggle_watch(DBusWatch* watch, void* data);
  static void wake_up(void* data);
  void set(DBusWatch* watch, bool present);

  Platform::CWakeup m_wakeup;
  // The thread that sleeps in wait(): libdbus also calls its wake-up function
  // there (on every message it queues), where the sleeper is awake anyway.
  std::atomic<pthread_t> m_sleeper{0};
  // libdbus calls the watch functions on whichever thread changes the
  // connection, holding the connection's lock; this lock never is held while
  // calling into libdbus.
  Platform::CMutex m_lock;
  std::vector<Watch> m_watches;
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
