#include "common/dbus/src/dbus_internal_callback.h"

#include <cxxabi.h>

#include <exception>

#include "common/dbus/src/dbus_message.h"
#include "common/dbus/src/dbus_server.h"
#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

using Platform::CMutexGuard;

CDBusInternalCallback::CDBusInternalCallback(CDBusServer* server)
    : CThread("DBus_callback_thread", POLICY_NORMAL, 64, 0), m_server(server) {}

CDBusInternalCallback::~CDBusInternalCallback() {
  stop();
  CMutexGuard guard(&m_lock);
  for (CallbackItem* item : m_queue) release(item);
  m_queue.clear();
}

bool CDBusInternalCallback::start() {
  if (m_started.load()) return true;
  m_started.store(true);
  return CThread::start();
}

void CDBusInternalCallback::stop() {
  if (!m_started.exchange(false)) return;
  m_wake.post();
  CThread::stop();
}

void CDBusInternalCallback::push(CallbackItem* item) {
  {
    CMutexGuard guard(&m_lock);
    m_queue.push_back(item);
  }
  m_wake.post();
}

void CDBusInternalCallback::push_method(DBusMessage* message) { push(new CallbackItem{message, m_methodKind}); }

void CDBusInternalCallback::push_signal(DBusMessage* message) { push(new CallbackItem{message, m_signalKind}); }

void CDBusInternalCallback::push_status(int32_t status) { push(new CallbackItem{new int32_t(status), m_statusKind}); }

void CDBusInternalCallback::release(CallbackItem* item) {
  if (item->kind == m_methodKind || item->kind == m_signalKind) {
    dbus_message_unref(static_cast<DBusMessage*>(item->payload));
  } else if (item->kind == m_statusKind) {
    delete static_cast<int32_t*>(item->payload);
  }
  delete item;
}

void CDBusInternalCallback::dispatch(const CallbackItem& item) {
  if (item.kind == m_methodKind) {
    CDBusMethodCall call(static_cast<DBusMessage*>(item.payload));
    CDBusMethodReturn reply(call);
    bool sendReply = true;
    try {
      m_server->message_method(call, reply, sendReply);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // The caller still gets an (empty) answer instead of waiting out its time-out.
      CDBusMethodReturn empty(call);
      m_server->send_dbus_reply(empty);
      throw;
    }
    if (sendReply) m_server->send_dbus_reply(reply);
  } else if (item.kind == m_signalKind) {
    CDBusSignal signal(static_cast<DBusMessage*>(item.payload));
    m_server->message_signal(signal);
  } else {
    m_server->message_error(*static_cast<int32_t*>(item.payload));
  }
}

void CDBusInternalCallback::threadProc() {
  while (m_started.load() && isRunning()) {
    // One post per queued item, and one from stop().
    m_wake.wait(0);
    CallbackItem* item = nullptr;
    {
      CMutexGuard guard(&m_lock);
      if (!m_queue.empty()) {
        item = m_queue.front();
        m_queue.pop_front();
      }
    }
    if (!item) continue;
    if (item->kind != m_methodKind && item->kind != m_signalKind && item->kind != m_statusKind) {
      TC_LOG(2, "threadProc, unknow message type:%d.", static_cast<int>(item->kind));
      release(item);
      continue;
    }
    // A throwing handler loses its message, not the worker.
    try {
      dispatch(*item);
    } catch (abi::__forced_unwind&) {
      release(item);
      throw;  // cancellation must unwind through here
    } catch (const std::exception& e) {
      TC_LOG(2, "threadProc, handler ended by an exception: %s.", e.what());
    } catch (...) {
      TC_LOG(2, "threadProc, handler ended by an unknown exception.");
    }
    release(item);
  }
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
