#include "service/lora_node.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "common/json/json_text.h"
#include "common/log/log.h"
#include "common/platform/src/lock/MutexGuard.h"
#include "common/platform/src/thread/Thread.h"
#include "service/common.h"
#include "service/lora_node_request.h"

// For the one helper that serves two operations under their own names.
#define TC_LOG_AS(function, level, ...) \
  log_print((level), nullptr, nullptr, __FILE__, (function), __LINE__, __VA_ARGS__)

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

namespace {

const char* const kRfKey = "gw_tc_loralan_rf";
const char* const kDevicesKey = "gw_tc_loralan_devices";
constexpr uint32_t kConfigTimeoutMs = 3000;
constexpr time_t kReceiveTimeoutS = 10;
constexpr int kAnswerSize = 1024;

bool config_read(int32_t result) {
  return result == 0 || result == Component::CConfigAgent::kNoValue;
}

}  // namespace

CLoraNode::CLoraNode(Component::CConfigAgent* agent) : m_agent(agent), m_exchange_lock("lora_node_exchange") {}

CLoraNode::~CLoraNode() { close_socket(); }

int CLoraNode::start() {
  const int fd = create_udp(LORA_NODE_IP, LORA_NODE_LOCAL_PORT, 1);
  if (fd < 0) {
    TC_LOG(2, "start, create udp port fail.");
    return 0;
  }
  timeval timeout{kReceiveTimeoutS, 0};
  if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
    TC_LOG(2, "start, setsockopt SOL_SOCKET SO_RCVTIMEO fail.");
    close(fd);
    return 0;
  }
  m_socket = fd;
  TC_LOG(2, "start, create %s:%d success", LORA_NODE_IP, static_cast<int>(LORA_NODE_LOCAL_PORT));

  std::string rf;
  if (!config_read(m_agent->get_config(kRfKey, rf, kConfigTimeoutMs))) {
    TC_LOG(2, "start, get config [%s] fail.", kRfKey);
    close_socket();
    return 0;
  }
  TC_LOG(1, "start, get config %s:%s", kRfKey, rf.c_str());
  if (!rf.empty() && !deal_rf_change_config(rf)) {
    TC_LOG(2, "start, deal_rf_change_config fail.");
    close_socket();
    return 0;
  }

  std::string devices;
  if (!config_read(m_agent->get_config(kDevicesKey, devices, kConfigTimeoutMs))) {
    TC_LOG(2, "start, get config [%s] fail.", kDevicesKey);
    close_socket();
    return 0;
  }
  TC_LOG(1, "start, get config %s:%s", kDevicesKey, devices.c_str());
  if (!devices.empty() && !deal_node_change_config(devices)) {
    TC_LOG(2, "start, deal_node_change_config fail.");
    close_socket();
    return 0;
  }
  return 1;
}

void CLoraNode::close_socket() {
  // A shut-down socket ends a receive at once and fails every later send, so
  // an exchange on another thread returns instead of waiting out its 10 s.
  // (On an unconnected socket it answers ENOTCONN, and does both all the
  // same.)  The descriptor itself stays valid until that exchange has let go of it.
  const int fd = m_socket.load();
  if (fd > 0) shutdown(fd, SHUT_RDWR);
  Platform::CMutexGuard guard(&m_exchange_lock);
  m_socket = -1;
  if (fd > 0) close(fd);
}

int CLoraNode::config_change_callback(const std::string& key, const std::string& value, int& /*extra*/) {
  if (key == kDevicesKey) deal_node_change_config(value);
  // Unlike start, an empty value is sent here: it restores the defaults.
  if (key == kRfKey) return deal_rf_change_config(value) ? 1 : 0;
  return 0;
}

bool CLoraNode::deal_rf_change_config(const std::string& value) {
  Json::Value settings = default_rf_settings();
  if (!value.empty() && !rf_settings_from_config(value, settings)) {
    TC_LOG(2, "deal_rf_change_config, string_to_json fail.");
    return false;
  }
  return set_rf(settings);
}

bool CLoraNode::set_rf(const Json::Value& settings) {
  const std::string request = build_node_request("set_rf", "class-c", settings);
  TC_LOG(1, "set_rf, request:%s", request.c_str());
  std::string response;
  if (!exchange(request, response)) {
    TC_LOG(1, "set_rf, udp_node_send_and_recv fail");
    note_result(m_last_rf, "set_rf", -1, false, 0);
    return false;
  }
  TC_LOG(1, "set_rf, response:%s", response.c_str());
  int32_t result = LORA_NODE_NO_RESULT;
  const bool readable = node_response_result(response, result);
  note_result(m_last_rf, "set_rf", -1, readable, result);
  if (!readable) {
    TC_LOG(1, "set_rf, string_to_json fail, str_response:%s", response.c_str());
    m_rf_ready = false;
    return false;
  }
  TC_LOG(1, "set_rf, result:%d", result);
  m_rf_ready = result == 0;
  return result == 0;
}

bool CLoraNode::deal_node_change_config(const std::string& value) {
  Json::Value items(Json::arrayValue);
  if (!value.empty() && !Platform::string_to_json(value, items)) {
    TC_LOG(2, "deal_node_change_config, string_to_json fail.");
    return false;
  }
  if (!items.isArray()) {
    TC_LOG(2, "deal_node_change_config, config is not array format.");
    return false;
  }
  // Empties the node service's list first; the first batch below then goes
  // as a "sync" once more, on purpose.
  if (!sync_abp_node(Json::Value(Json::arrayValue))) {
    TC_LOG(1, "deal_node_change_config, sync_abp_node fail");
    return false;
  }

  Json::Value batch(Json::arrayValue);
  bool first_batch = true;
  for (Json::ArrayIndex i = 0; i < items.size(); ++i) {
    const AbpNodeItem item = read_abp_node_item(items[i]);
    TC_LOG(1, "deal_node_change_config, [%d] dev_eui:%s dev_addr:%s nwkskey:%s appskey:%s mode:%s",
           static_cast<int>(i), item.dev_eui.c_str(), item.dev_addr.c_str(), item.nwkskey.c_str(),
           item.appskey.c_str(), item.mode.c_str());
    batch.append(build_abp_node(item));
    if (batch.size() < LORA_NODE_BATCH_SIZE && i + 1 < items.size()) continue;
    const bool sent = first_batch ? sync_abp_node(batch) : add_abp_node(batch);
    if (!sent) {
      TC_LOG(1, "deal_node_change_config, %s_abp_node fail", first_batch ? "sync" : "add");
      return false;
    }
    first_batch = false;
    batch = Json::Value(Json::arrayValue);
  }
  return true;
}

bool CLoraNode::sync_abp_node(const Json::Value& nodes) { return abp_node_request("sync", nodes); }

bool CLoraNode::add_abp_node(const Json::Value& nodes) { return abp_node_request("add", nodes); }

bool CLoraNode::abp_node_request(const char* method, const Json::Value& nodes) {
  // The lines carry the operation's own name: sync_abp_node or add_abp_node.
  const std::string op = std::string(method) + "_abp_node";
  const char* name = op.c_str();
  // The request is not logged: it holds session keys.
  const std::string request = build_node_request(method, "loranode", nodes);
  std::string response;
  const int count = static_cast<int>(nodes.size());
  if (!exchange(request, response)) {
    TC_LOG_AS(name, 1, "%s, udp_node_send_and_recv fail", name);
    note_result(m_last_abp, method, count, false, 0);
    return false;
  }
  TC_LOG_AS(name, 1, "%s, count:%d, response:%s", name, count, response.c_str());
  int32_t result = LORA_NODE_NO_RESULT;
  const bool readable = node_response_result(response, result);
  note_result(m_last_abp, method, count, readable, result);
  if (!readable) {
    TC_LOG_AS(name, 1, "%s, string_to_json fail, str_response:%s", name, response.c_str());
    return false;
  }
  return result == 0;
}

void CLoraNode::note_result(Json::Value& slot, const char* method, int nodes, bool answered, int32_t result) {
  Json::Value outcome(Json::objectValue);
  outcome["request"] = method;
  if (nodes >= 0) outcome["nodes"] = nodes;
  outcome["answered"] = answered;
  outcome["result"] = answered ? Json::Value(result) : Json::Value();
  outcome["at_ms"] = Json::UInt64(Platform::tickMs());
  Platform::CMutexGuard guard(&m_results_lock);
  slot = outcome;
}

Json::Value CLoraNode::statistics() {
  Json::Value outcomes(Json::objectValue);
  {
    Platform::CMutexGuard guard(&m_results_lock);
    outcomes["rf"] = m_last_rf;
    outcomes["abp"] = m_last_abp;
  }
  // How long ago, rather than a tick nobody else can read.
  const uint64_t now = Platform::tickMs();
  for (const char* key : {"rf", "abp"}) {
    Json::Value& outcome = outcomes[key];
    if (outcome.isNull()) continue;
    outcome["age_ms"] = Json::UInt64(now - outcome["at_ms"].asUInt64());
    outcome.removeMember("at_ms");
  }
  return outcomes;
}

bool CLoraNode::exchange(const std::string& request, std::string& response) {
  Platform::CMutexGuard guard(&m_exchange_lock);
  return udp_node_send_and_recv(m_socket, request, response);
}

bool CLoraNode::udp_node_send_and_recv(int fd, const std::string& request, std::string& response) {
  clear_node_socket(fd);
  const int length = static_cast<int>(request.size());
  TC_LOG(1, "udp_node_send_and_recv, sendto %s:%d length:%d", LORA_NODE_IP, static_cast<int>(LORA_NODE_SERVER_PORT),
         length);
  int n = send_udp(fd, request.data(), length, LORA_NODE_IP, LORA_NODE_SERVER_PORT);
  if (n <= 0) {
    TC_LOG(2, "udp_node_send_and_recv, send_udp fail, iret:%d", n);
    return false;
  }
  char answer[kAnswerSize] = {};
  n = recv_udp(fd, answer, kAnswerSize);
  if (n <= 0) {
    TC_LOG(2, "udp_node_send_and_recv, recv_udp fail, iret:%d", n);
    return false;
  }
  response.assign(answer, static_cast<size_t>(n));
  return true;
}

void CLoraNode::clear_node_socket(int fd) {
  char discard[kAnswerSize];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0 || (p.revents & POLLIN) == 0) return;
    if (recv_udp(fd, discard, kAnswerSize) <= 0) return;
  }
}

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
