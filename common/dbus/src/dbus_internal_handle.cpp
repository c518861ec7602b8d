#include "common/dbus/src/dbus_internal_handle.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "common/dbus/src/dbus_internal_callback.h"
#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "common/platform/src/lock/semaphore.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

using Platform::CMutexGuard;

namespace {
const char* const kWatchdogName = "iot.gateway.watchdog";

// The reader, the callback worker and callers all use the connection.
bool init_threads() { return dbus_threads_init_default(); }
}  // namespace

struct CDBusInternalHandle::PendingCall {
  Platform::CSemaphore done{0};
  CDBusMethodReturn reply{nullptr};
  std::atomic<bool> closed{false};
};

struct CDBusInternalHandle::AsyncCall {
  CDBusAsyncDelegate delegate;
  uint64_t context;
  uint32_t reserved;
};

CDBusInternalHandle::CDBusInternalHandle(CDBusInternalCallback* callback, const std::string& address,
                                         const std::string& name, const std::vector<std::string>& matchRules)
    : CThread("DBus_handle_thread", POLICY_NORMAL, 64, 0),
      m_callback(callback),
      m_address(address),
      m_name(name),
      m_matchRules(matchRules) {
  static const bool threads = init_threads();
  (void)threads;
}

CDBusInternalHandle::~CDBusInternalHandle() {
  disconnect();
  release_stale_connection();
}

int CDBusInternalHandle::check_and_abort(DBusError* error) {
  if (!dbus_error_is_set(error)) return 0;
  TC_LOG(2, "dbus error:%s.", error->message ? error->message : "");
  dbus_error_free(error);
  return -1;
}

void CDBusInternalHandle::close_connection(DBusConnection* connection) {
  m_watchSet.detach(connection);
  dbus_connection_close(connection);
  dbus_connection_unref(connection);
}

DBusConnection* CDBusInternalHandle::acquire_connection() {
  CMutexGuard guard(&m_lock);
  return m_connection ? dbus_connection_ref(m_connection) : nullptr;
}

// After the reader ended on its own the connection object is still held; it
// is let go only here, before a new connection or at destruction.  Its
// asynchronous calls can no longer be answered.
void CDBusInternalHandle::release_stale_connection() {
  if (!isStopped()) CThread::stop();
  DBusConnection* connection;
  std::map<uint32_t, AsyncCall*> orphans;
  {
    CMutexGuard guard(&m_lock);
    connection = m_connection;
    m_connection = nullptr;
    orphans.swap(m_asyncCalls);
  }
  for (auto& entry : orphans) {
    CDBusMethodReturn empty(nullptr);
    entry.second->delegate(1, empty, entry.second->context);
    delete entry.second;
  }
  if (connection) close_connection(connection);
}

int32_t CDBusInternalHandle::connect_to_bus() {
  if (m_connected.load()) {
    TC_LOG(2, "dbus already connected.");
    return -1;
  }
  release_stale_connection();

  DBusError error;
  dbus_error_init(&error);
  DBusConnection* connection = dbus_connection_open_private(m_address.c_str(), &error);
  if (check_and_abort(&error) != 0 || !connection) {
    TC_LOG(2, "dbus connection open fail, address:%s.", m_address.c_str());
    if (connection) close_connection(connection);
    return -2;
  }

  int32_t result = 0;
  bool nameOwned = false;
  const bool registered = dbus_bus_register(connection, &error);
  if (check_and_abort(&error) != 0 || !registered) {
    TC_LOG(2, "dbus register fail.");
    result = -3;
  }
  if (result == 0) {
    // libdbus aborts on a malformed or unique name instead of failing.
    const bool valid = !m_name.empty() && m_name[0] != ':' && dbus_validate_bus_name(m_name.c_str(), nullptr);
    const int reply = valid ? dbus_bus_request_name(connection, m_name.c_str(), 0, &error) : -1;
    if (check_and_abort(&error) != 0 || reply != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
      TC_LOG(2, "dbus request name fail, name:%s.", m_name.c_str());
      result = -4;
    } else {
      nameOwned = true;
    }
  }
  for (size_t i = 0; result == 0 && i < m_matchRules.size(); ++i) {
    dbus_bus_add_match(connection, m_matchRules[i].c_str(), &error);
    if (check_and_abort(&error) != 0) {
      TC_LOG(2, "dbus add match fail, rule:%s.", m_matchRules[i].c_str());
      result = -5;
    }
  }
  if (result == 0) {
    {
      CMutexGuard guard(&m_lock);
      m_connection = connection;
    }
    // Set before the reader starts: its first read may return at once, and it
    // ends when it then finds the flag clear.
    m_connected.store(true);
    if (m_watchSet.attach(connection) && CThread::start()) {
      TC_LOG(1, "connect to bus success, address:%s, name:%s.", m_address.c_str(), m_name.c_str());
      return 0;
    }
    m_connected.store(false);
    {
      CMutexGuard guard(&m_lock);
      m_connection = nullptr;
    }
    TC_LOG(2, "create thread fail.");
    result = -6;
  }
  if (nameOwned) {
    dbus_bus_release_name(connection, m_name.c_str(), &error);
    check_and_abort(&error);
  }
  close_connection(connection);
  return result;
}

void CDBusInternalHandle::disconnect() {
  if (!m_connected.exchange(false)) return;
  requestStop();
  m_watchSet.wake();
  CThread::stop();

  DBusConnection* connection;
  std::map<uint32_t, AsyncCall*> abandoned;
  {
    CMutexGuard guard(&m_lock);
    for (auto& entry : m_blockingCalls) {
      entry.second->closed.store(true);
      entry.second->done.post();
    }
    abandoned.swap(m_asyncCalls);
    connection = m_connection;
    m_connection = nullptr;
    m_watchdogInterval = 0;
    m_watchdogPath.clear();
    m_watchdogText.clear();
  }
  for (auto& entry : abandoned) {
    CDBusMethodReturn empty(nullptr);
    entry.second->delegate(1, empty, entry.second->context);
    delete entry.second;
  }
  if (!connection) return;
  DBusError error;
  dbus_error_init(&error);
  dbus_bus_release_name(connection, m_name.c_str(), &error);
  check_and_abort(&error);
  close_connection(connection);
}

int32_t CDBusInternalHandle::block_call(CDBusMethodCall& call, CDBusMethodReturn& reply, uint32_t timeoutMs) {
  if (!m_connected.load()) {
    TC_LOG(2, "block_call, dbus disconnected.");
    return -1;
  }
  PendingCall* pending = nullptr;
  dbus_uint32_t serial = 0;
  {
    // The entry exists before the reader can see the reply.
    CMutexGuard guard(&m_lock);
    if (m_connection && call.get_message() && dbus_connection_send(m_connection, call.get_message(), &serial)) {
      pending = new PendingCall;
      m_blockingCalls[serial] = pending;
    }
  }
  if (!pending) {
    TC_LOG(2, "block_call, dbus connection send fail.");
    return -2;
  }

  const bool ok = pending->done.wait(timeoutMs);
  {
    CMutexGuard guard(&m_lock);
    auto it = m_blockingCalls.find(serial);
    if (it != m_blockingCalls.end() && it->second == pending) m_blockingCalls.erase(it);
  }
  const bool closed = pending->closed.load();
  int32_t result = 0;
  if (closed || !ok) {
    TC_LOG(2, "dbus wait response timeout, close:%d, timeout:%d, client_serial:%d, member:%s.", closed ? 1 : 0,
           static_cast<int>(timeoutMs), static_cast<int>(serial), call.get_member().c_str());
    result = closed ? -4 : -3;
  } else {
    reply = pending->reply;
    if (!reply.is_method_return()) result = -5;
  }
  delete pending;
  return result;
}

int32_t CDBusInternalHandle::unblock_call(CDBusMethodCall& call, uint64_t context,
                                          const CDBusAsyncDelegate& delegate) {
  if (!m_connected.load()) {
    TC_LOG(2, "dbus already connected.");
    return -1;
  }
  {
    CMutexGuard guard(&m_lock);
    dbus_uint32_t serial = 0;
    if (m_connection && call.get_message() && dbus_connection_send(m_connection, call.get_message(), &serial)) {
      m_asyncCalls[serial] = new AsyncCall{delegate, context, 0};
      return 0;
    }
  }
  TC_LOG(2, "dbus connection send fail.");
  return -2;
}

bool CDBusInternalHandle::send_dbus_reply(CDBusMethodReturn& reply) {
  if (!m_connected.load()) {
    TC_LOG(2, "dbus already disconnected.");
    return false;
  }
  DBusConnection* connection = acquire_connection();
  if (!connection) return false;
  const bool sent = reply.get_message() && dbus_connection_send(connection, reply.get_message(), nullptr);
  dbus_connection_unref(connection);
  return sent;
}

int32_t CDBusInternalHandle::send_signal(CDBusSignal& signal) {
  if (!m_connected.load()) {
    TC_LOG(2, "dbus already connected.");
    return -1;
  }
  DBusConnection* connection = acquire_connection();
  const bool sent =
      connection && signal.get_message() && dbus_connection_send(connection, signal.get_message(), nullptr);
  if (connection) dbus_connection_unref(connection);
  if (!sent) {
    TC_LOG(2, "dbus connection send fail.");
    return -2;
  }
  return 0;
}

bool CDBusInternalHandle::set_watchdog(const char* path, const char* text, uint32_t intervalSeconds) {
  CMutexGuard guard(&m_lock);
  m_watchdogPath = path ? path : "";
  m_watchdogText = text ? text : "";
  m_watchdogInterval = intervalSeconds;
  m_watchSet.wake();  // the reader's sleep depends on it
  return true;
}

int CDBusInternalHandle::feed_watchdog(uint64_t& lastFeed) {
  int32_t interval;
  {
    CMutexGuard guard(&m_lock);
    interval = static_cast<int32_t>(m_watchdogInterval);
  }
  if (interval <= 0) return -1;
  // Fed once more than `interval` whole seconds have passed.
  const uint64_t periodMs = (static_cast<uint64_t>(interval) + 1) * 1000;
  const uint64_t now = Platform::tickMs();
  if (now - lastFeed >= periodMs) {
    std::string path;
    std::string text;
    {
      CMutexGuard guard(&m_lock);
      path = m_watchdogPath;
      text = m_watchdogText;
    }
    // The watchdog is told to allow twice the interval.
    CDBusSignal feed(kWatchdogName, path, kWatchdogName, "feedDog");
    if (feed.set_string(m_name) && feed.set_string(text) &&
        feed.set_int32(static_cast<int32_t>(2u * static_cast<uint32_t>(interval)))) {
      dbus_connection_send(m_connection, feed.get_message(), nullptr);
    }
    lastFeed = now;
  }
  return static_cast<int>(std::min<uint64_t>(lastFeed + periodMs - now, INT32_MAX));
}

void CDBusInternalHandle::threadProc() {
  TC_LOG(1, "threadProc, dbus begin loop read message.");
  uint64_t lastFeed = Platform::tickMs();
  while (isRunning()) {
    const int nextFeedMs = feed_watchdog(lastFeed);
    // Does whatever reading and writing the connection allows, without
    // waiting; the sleep is on the watch set below.
    const dbus_bool_t bret = dbus_connection_read_write(m_connection, 0);
    if (!bret) {
      TC_LOG(1, "threadProc, dbus_connection_read_write bret:%d.", static_cast<int>(bret));
      if (m_callback) m_callback->push_status(-1);
      break;
    }
    if (!m_connected.load()) {
      TC_LOG(1, "threadProc, m_connected:%d.", 0);
      break;
    }
    // All taken off the connection first: a worker woken by a hand-over then
    // finds the connection free for its reply.
    std::vector<DBusMessage*> popped;
    while (DBusMessage* message = dbus_connection_pop_message(m_connection)) popped.push_back(message);
    for (DBusMessage* message : popped) {
      if (m_connected.load()) {
        dispatch(message);
      } else {
        dbus_message_unref(message);
      }
    }
    if (isRunning()) m_watchSet.wait(nextFeedMs);
  }
  m_connected.store(false);
  TC_LOG(1, "threadProc, dbus end loop read message.");
}

// The popped reference goes with the message to whoever takes it, before that
// one is woken, so the thread that uses a message last also releases it.
void CDBusInternalHandle::dispatch(DBusMessage* message) {
  const int type = dbus_message_get_type(message);
  switch (type) {
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
      if (m_callback) {
        m_callback->push_method(message);
        return;
      }
      break;
    case DBUS_MESSAGE_TYPE_METHOD_RETURN:
      handle_return_method(message);
      return;
    case DBUS_MESSAGE_TYPE_ERROR:
      handle_error_method(message);
      return;
    case DBUS_MESSAGE_TYPE_SIGNAL:
      if (m_callback) {
        m_callback->push_signal(message);
        return;
      }
      break;
    default:
      TC_LOG(2, "dbus read a unknow message, type:%d.", type);
      break;
  }
  dbus_message_unref(message);
}

void CDBusInternalHandle::handle_return_method(DBusMessage* message) {
  const dbus_uint32_t serial = dbus_message_get_reply_serial(message);
  CDBusAsyncDelegate delegate;
  uint64_t context = 0;
  {
    CMutexGuard guard(&m_lock);
    auto blocking = m_blockingCalls.find(serial);
    if (blocking != m_blockingCalls.end()) {
      // The waiting caller removes the entry.
      blocking->second->reply = CDBusMethodReturn(message);
      dbus_message_unref(message);
      blocking->second->done.post();
      return;
    }
    auto async = m_asyncCalls.find(serial);
    if (async == m_asyncCalls.end()) {
      TC_LOG(0, "handle_return_method, no match, reply serial:%d.", static_cast<int>(serial));
      dbus_message_unref(message);
      return;
    }
    // Taken out before the call, so the delegate may itself make calls.
    delegate = async->second->delegate;
    context = async->second->context;
    delete async->second;
    m_asyncCalls.erase(async);
  }
  CDBusMethodReturn reply(message);
  dbus_message_unref(message);
  delegate(0, reply, context);
}

void CDBusInternalHandle::handle_error_method(DBusMessage* message) {
  const char* name = dbus_message_get_error_name(message);
  TC_LOG(0, "handle_error_method, name:%s.", name ? name : "");
  handle_return_method(message);
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
