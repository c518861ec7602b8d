#pragma once
// CLoraNode: pushes the class-C radio settings and the list of ABP nodes to
// the LoRa node service on this host, one blocking request/answer exchange at
// a time over UDP.  No thread of its own: it runs on the thread that calls it
// (the main thread at start, the notification thread afterwards).

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "common/platform/src/lock/Mutex.h"
#include "component/config_agent.h"

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

class CLoraNode {
 public:
  // The agent is not owned and must outlive this object.  No I/O here.
  explicit CLoraNode(Component::CConfigAgent* agent);
  // Closes the socket if close_socket() was not called.
  ~CLoraNode();
  CLoraNode(const CLoraNode&) = delete;
  CLoraNode& operator=(const CLoraNode&) = delete;

  // 1 done; 0 failed (socket released), retry.  Sends the configured RF
  // settings and node list; an empty value sends nothing.
  int start();
  // Wakes an exchange waiting on the socket, waits until it has ended, then
  // closes the socket.  Safe when never started.
  void close_socket();

  // Forwarded changes of the LoRa keys.  Returns the RF outcome (1 accepted)
  // for "gw_tc_loralan_rf", 0 for every other key.
  int config_change_callback(const std::string& key, const std::string& value, int& extra);

  // An empty value sends the default settings.
  bool deal_rf_change_config(const std::string& value);
  bool set_rf(const Json::Value& settings);
  // Replaces the node service's list: an empty "sync", then the nodes in
  // batches of 100, the first as "sync" and the rest as "add".
  bool deal_node_change_config(const std::string& value);
  bool sync_abp_node(const Json::Value& nodes);
  bool add_abp_node(const Json::Value& nodes);

  // One request and its answer (at most 1024 bytes, 10 s); late answers to
  // earlier requests are thrown away first.  The caller holds the exchange
  // lock (exchange() below).
  bool udp_node_send_and_recv(int fd, const std::string& request, std::string& response);
  void clear_node_socket(int fd);

  bool rf_ready() const { return m_rf_ready; }

  // The outcome of the last RF and the last ABP request: {"rf":..., "abp":...},
  // each null before its first request.
  Json::Value statistics();

 private:
  bool abp_node_request(const char* method, const Json::Value& nodes);
  // udp_node_send_and_recv on the current socket, which cannot be closed
  // while the exchange runs.
  bool exchange(const std::string& request, std::string& response);
  // Keeps the outcome of one request for statistics(); `answered` false
  // when no answer came, `result` the node service's code otherwise.
  void note_result(Json::Value& slot, const char* method, int nodes, bool answered, int32_t result);

  Component::CConfigAgent* m_agent;
  std::atomic<bool> m_rf_ready{false};
  // Written by the thread that starts and closes (the main thread); read by
  // exchanges under the lock.
  std::atomic<int> m_socket{-1};
  // Start and a notification may overlap; each answer must meet its request,
  // and the socket is closed only between exchanges.
  Platform::CMutex m_exchange_lock;
  // Guards the two outcomes; never held across an exchange.
  Platform::CMutex m_results_lock;
  Json::Value m_last_rf;
  Json::Value m_last_abp;
};

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
