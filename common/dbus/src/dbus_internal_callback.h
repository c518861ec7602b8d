#pragma once
// CDBusInternalCallback: the worker that hands incoming method calls, signals
// and connection-status changes to the server, one at a time and in arrival
// order, off the reader thread (handlers make blocking calls of their own).

#include <dbus/dbus.h>

#include <atomic>
#include <cstdint>
#include <list>

#include "common/platform/src/lock/Mutex.h"
#include "common/platform/src/lock/semaphore.h"
#include "common/platform/src/thread/Thread.h"

namespace Zentrova {
namespace Iot {
namespace DBus {

class CDBusServer;

class CDBusInternalCallback : public Platform::CThread {
 public:
  explicit CDBusInternalCallback(CDBusServer* server);
  // Stops the worker; items still queued release their messages.
  ~CDBusInternalCallback() override;

  bool start();
  void stop();
  // Each takes over the caller's reference on the message.
  void push_method(DBusMessage* message);
  void push_signal(DBusMessage* message);
  void push_status(int32_t status);

 protected:
  void threadProc() override;

 private:
  struct CallbackItem {
    void* payload;
    uint32_t kind;
  };

  void push(CallbackItem* item);
  void dispatch(const CallbackItem& item);
  void release(CallbackItem* item);

  const uint32_t m_methodKind = 1;
  const uint32_t m_signalKind = 2;
  const uint32_t m_statusKind = 3;
  CDBusServer* m_server;
  Platform::CMutex m_lock;
  Platform::CSemaphore m_wake{0};
  std::list<CallbackItem*> m_queue;
  std::atomic<bool> m_started{false};
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Zentrova
