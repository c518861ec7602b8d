// tc-bench-modbus: a Modbus RTU master and slave (libmodbus) for the
// whole-path request/response benchmark of bench/run.sh.
//
//   tc-bench-modbus slave DEVICE
//       answers slave id 1 on DEVICE (115200 8N1) until killed; 100 holding
//       registers, register i holding i * 3
//   tc-bench-modbus master DEVICE SECONDS
//       reads 60 holding registers from slave 1 as fast as answers come, for
//       SECONDS after 50 warm-up transactions; prints
//       "modbus transactions N tps X p50_us Y p99_us Z errors E"

#include <modbus.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kSlave = 1;
constexpr int kRegisters = 60;
constexpr int kMapped = 100;

modbus_t* open_line(const char* device) {
  modbus_t* ctx = modbus_new_rtu(device, 115200, 'N', 8, 1);
  if (!ctx || modbus_set_slave(ctx, kSlave) != 0 || modbus_connect(ctx) != 0) {
    fprintf(stderr, "tc-bench-modbus: %s: %s\n", device, modbus_strerror(errno));
    if (ctx) modbus_free(ctx);
    return nullptr;
  }
  return ctx;
}

int slave(const char* device) {
  modbus_t* ctx = open_line(device);
  if (!ctx) return 1;
  modbus_mapping_t* map = modbus_mapping_new(0, 0, kMapped, 0);
  for (int i = 0; i < kMapped; ++i) map->tab_registers[i] = static_cast<uint16_t>(i * 3);
  uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
  for (;;) {
    const int n = modbus_receive(ctx, query);
    if (n > 0) modbus_reply(ctx, query, n, map);
  }
}

int master(const char* device, double seconds) {
  modbus_t* ctx = open_line(device);
  if (!ctx) return 1;
  modbus_set_response_timeout(ctx, 1, 0);
  uint16_t regs[kRegisters];
  using Clock = std::chrono::steady_clock;
  std::vector<double> us;
  long errors = 0;
  auto one = [&]() {
    const auto t = Clock::now();
    const bool ok = modbus_read_registers(ctx, 0, kRegisters, regs) == kRegisters &&
                    regs[kRegisters - 1] == 3 * (kRegisters - 1);
    if (!ok) {
      ++errors;
      modbus_flush(ctx);
    }
    return std::chrono::duration<double, std::micro>(Clock::now() - t).count();
  };
  for (int i = 0; i < 50; ++i) one();
  errors = 0;
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) us.push_back(one());
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(us.begin(), us.end());
  printf("modbus transactions %zu tps %.1f p50_us %.1f p99_us %.1f errors %ld\n", us.size(), us.size() / elapsed,
         us.empty() ? 0.0 : us[us.size() / 2], us.empty() ? 0.0 : us[us.size() * 99 / 100], errors);
  modbus_close(ctx);
  modbus_free(ctx);
  return errors == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "slave" && argc == 3) return slave(argv[2]);
  if (mode == "master" && argc == 4) return master(argv[2], atof(argv[3]));
  fprintf(stderr, "usage: tc-bench-modbus slave DEVICE | master DEVICE SECONDS\n");
  return 2;
}
