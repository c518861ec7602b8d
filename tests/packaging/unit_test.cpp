// The systemd unit: it parses, systemd-analyze rates it confined, and the
// service does its whole job under the restrictions a test can impose without
// systemd (sandbox.sh, and tc-seccomp-exec with the unit's own system-call
// filter).  Isolated: the bus path and the ports are fixed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/e2e/gateway.h"
#include "tests/e2e/remote_port.h"
#include "tests/support/device_file.h"

namespace {

const std::string kUnit = TC_BINARY_DIR "/transparent-channel.service";
const std::string kAnalyze = "/usr/bin/systemd-analyze";

// Exit code and output of a command that ends on its own.
int run(const std::vector<std::string>& argv, std::string& output) {
  tc_test::ChildProcess tool(argv);
  int status = 0;
  if (!tool.wait_exit(30000, &status)) return -1;
  output = tool.output();
  return tc_test::exit_code(status);
}

// The system calls the unit's SystemCallFilter= lines allow, in order: the
// first line lists what is allowed, a "~" line takes calls away; groups
// (from `systemd-analyze syscall-filter`) are expanded.
[[maybe_unused]] std::set<std::string> unit_syscalls() {  // plain builds only
  std::string listing, line, group;
  if (run({kAnalyze, "syscall-filter"}, listing) != 0) return {};
  std::map<std::string, std::vector<std::string>> groups;
  for (std::istringstream in(listing); std::getline(in, line);) {
    if (line.rfind('@', 0) == 0) group = line;
    const size_t at = line.find_first_not_of(' ');
    if (line.rfind("    ", 0) == 0 && line[at] != '#' && !group.empty()) groups[group].push_back(line.substr(at));
  }
  std::set<std::string> allowed;
  for (std::ifstream in(kUnit); std::getline(in, line);) {
    if (line.rfind("SystemCallFilter=", 0) != 0) continue;
    const bool take_away = line[17] == '~';
    std::vector<std::string> names;
    std::istringstream words(line.substr(take_away ? 18 : 17));
    for (std::string name; words >> name;) names.push_back(name);
    while (!names.empty()) {
      const std::string name = names.back();
      names.pop_back();
      const auto members = groups.find(name);
      if (members != groups.end()) {
        names.insert(names.end(), members->second.begin(), members->second.end());
      } else {
        take_away ? (void)allowed.erase(name) : (void)allowed.insert(name);
      }
    }
  }
  return allowed;
}

class Unit : public testing::Test {
 protected:
  void SetUp() override {
    if (access(kAnalyze.c_str(), X_OK) == 0) return;
    if (const char* ci = std::getenv("CI"); ci && std::string(ci) == "true") FAIL() << kAnalyze << " is missing";
    GTEST_SKIP() << kAnalyze << " is missing (packaging/install-deps.sh installs systemd)";
  }
};

TEST_F(Unit, ParsesAndIsRatedConfined) {
  std::string output;
  // Exposure at most 3.5 (systemd-analyze counts in tenths here).
  EXPECT_EQ(run({kAnalyze, "security", "--offline=true", "--threshold=35", kUnit}, output), 0) << output;
  // Every setting known and valid: what is not is reported as "FILE:LINE: ...".
  EXPECT_EQ(output.find(kUnit + ":"), std::string::npos) << output;
}

TEST_F(Unit, TheServiceDoesItsJobInItsSandbox) {
  e2e::Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  std::string links = gw.path("");
  links.pop_back();
  // A folder the unit does not make writable.
  const std::string elsewhere = "/tmp/tc-elsewhere";
  ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
  const e2e::Gateway::Keys keys = {
      {"gw_tc_serial_devices", e2e::json_array({e2e::serial_device(gw.path("ttyV1"), "127.0.0.2", port.path())})},
      {"gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(gw.path("lora1"), "00aa11bb22cc33dd"),
                                                 e2e::lora_device(elsewhere + "/lora2", "00aa11bb22cc33de")})}};
  std::vector<std::string> sandbox = {TC_SOURCE_DIR "/tests/packaging/sandbox.sh", links};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // A sanitizer's runtime makes calls of its own, so only a plain build is filtered.
  const std::set<std::string> calls = unit_syscalls();
  ASSERT_GT(calls.size(), 100u);
  ASSERT_EQ(calls.count("reboot"), 0u);
  const std::string list = links + "/syscalls";
  std::ofstream out(list);
  for (const auto& call : calls) out << call << '\n';
  out.close();
  sandbox.insert(sandbox.end(), {TC_BINARY_DIR "/tests/packaging/tc-seccomp-exec", list});
#endif
  ASSERT_TRUE(gw.start_bus() && gw.start_manager(keys) && gw.start_lora_sim() && gw.start_serial_peer("127.0.0.2"))
      << gw.error();
  ASSERT_TRUE(gw.start_service(sandbox));
  ASSERT_TRUE(gw.wait_ready()) << gw.error();
  // The bus, a pseudo-terminal behind a link in its folder, TCP to the peer,
  // UDP to the LoRa services; nothing elsewhere.
  const std::string connected = e2e::status_line(gw.path("ttyV1"), "127.0.0.2", port.path(), true);
  std::string last;
  EXPECT_TRUE(gw.wait_status(connected, 10000 * e2e::kSlowdown, &last)) << last;
  EXPECT_TRUE(gw.service().wait_for_line("symlink error: Read-only file system", 5000)) << gw.service().output();
  EXPECT_TRUE(tc_test::path_exists(gw.path("lora1")));
  e2e::expect_bounded_stop(gw);
  rmdir(elsewhere.c_str());
}

}  // namespace
