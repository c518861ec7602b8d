#include "common/dbus/src/dbus_watch_set.h"

#include <poll.h>

#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

using Platform::CMutexGuard;

bool CDBusWatchSet::attach(DBusConnection* connection) {
  if (m_wakeup.fd() < 0) return false;
  if (!dbus_connection_set_watch_functions(connection, &CDBusWatchSet::add_watch, &CDBusWatchSet::remove_watch,
                                           &CDBusWatchSet::toggle_watch, this, nullptr)) {
    return false;
  }
  dbus_connection_set_wakeup_main_function(connection, &CDBusWatchSet::wake_up, this, nullptr);
  return true;
}

void CDBusWatchSet::detach(DBusConnection* connection) {
  dbus_connection_set_wakeup_main_function(connection, nullptr, nullptr, nullptr);
  dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
  CMutexGuard guard(&m_lock);
  m_watches.clear();
}

void CDBusWatchSet::wake() { m_wakeup.wake(); }

dbus_bool_t CDBusWatchSet::add_watch(DBusWatch* watch, void* data) {
  static_cast<CDBusWatchSet*>(data)->set(watch, true);
  return TRUE;
}

void CDBusWatchSet::remove_watch(DBusWatch* watch, void* data) { static_cast<CDBusWatchSet*>(data)->set(watch, false); }

void CDBusWatchSet::toggle_watch(DBusWatch* watch, void* data) { static_cast<CDBusWatchSet*>(data)->set(watch, true); }

void CDBusWatchSet::wake_up(void* data) {
  auto* self = static_cast<CDBusWatchSet*>(data);
  if (!pthread_equal(pthread_self(), self->m_sleeper.load())) self->wake();
}

// No wake-up from here: libdbus calls the wake-up main function itself when a
// send leaves output queued, and the reader reads the watches at every pass.
void CDBusWatchSet::set(DBusWatch* watch, bool present) {
  short events = 0;
  if (present && dbus_watch_get_enabled(watch)) {
    const unsigned int flags = dbus_watch_get_flags(watch);
    if (flags & DBUS_WATCH_READABLE) events |= POLLIN;
    if (flags & DBUS_WATCH_WRITABLE) events |= POLLOUT;
  }
  CMutexGuard guard(&m_lock);
  auto it = m_watches.begin();
  while (it != m_watches.end() && it->watch != watch) ++it;
  if (it != m_watches.end()) m_watches.erase(it);
  if (present) m_watches.push_back(Watch{watch, dbus_watch_get_unix_fd(watch), events});
}

void CDBusWatchSet::wait(int timeoutMs) {
  m_sleeper.store(pthread_self());
  std::vector<pollfd> fds{{m_wakeup.fd(), POLLIN, 0}};
  {
    CMutexGuard guard(&m_lock);
    for (const Watch& w : m_watches) {
      if (w.events == 0 || w.fd < 0) continue;
      // The reading and the writing watch share the socket.
      size_t i = 1;
      while (i < fds.size() && fds[i].fd != w.fd) ++i;
      if (i == fds.size()) fds.push_back({w.fd, 0, 0});
      fds[i].events = static_cast<short>(fds[i].events | w.events);
    }
  }
  if (poll(fds.data(), fds.size(), timeoutMs) > 0 && (fds[0].revents & POLLIN)) m_wakeup.drain();
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
