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
#include <string>
#include <vector>

#include "tests/e2e/gateway.h"
#include "tests/e2e/remote_port.h"
#include "tests/support/child_process.h"

using e2e::Gateway;
using tc_test::ChildProcess;

namespace {

const std::string kUnit = TC_BINARY_DIR "/transparent-channel.service";
const std::string kSandbox = TC_SOURCE_DIR "/tests/packaging/sandbox.sh";
const std::string kSeccompExec = TC_BINARY_DIR "/tests/packaging/tc-seccomp-exec";
const std::string kAnalyze = "/usr/bin/systemd-analyze";

// Exit code and output of a command that ends on its own.
int run(const std::vector<std::string>& argv, std::string& output) {
  ChildProcess tool(argv);
  int status = 0;
  if (!tool.wait_exit(30000, &status)) return -1;
  output = tool.output();
  return tc_test::exit_code(status);
}

// Every name in a group of `systemd-analyze syscall-filter`, groups expanded.
void expand(const std::map<std::string, std::vector<std::string>>& groups, const std::string& name,
            std::set<std::string>& out) {
  const auto group = groups.find(name);
  if (group == groups.end()) {
    out.insert(name);
    return;
  }
  for (const auto& member : group->second) expand(groups, member, out);
}

// The system calls the unit's SystemCallFilter= lines allow, in order: the
// first line lists what is allowed, a "~" line takes calls away.
[[maybe_unused]] std::set<std::string> unit_syscalls() {  // plain builds only
  std::string listing;
  if (run({kAnalyze, "syscall-filter"}, listing) != 0) return {};
  std::map<std::string, std::vector<std::string>> groups;
  std::string line;
  std::string group;
  for (std::istringstream in(listing); std::getline(in, line);) {
    if (line.rfind('@', 0) == 0) group = line;
    const size_t at = line.find_first_not_of(' ');
    if (line.rfind("    ", 0) == 0 && line[at] != '#' && !group.empty()) groups[group].push_back(line.substr(at));
  }
  std::set<std::string> allowed;
  for (std::ifstream in(kUnit); std::getline(in, line);) {
    if (line.rfind("SystemCallFilter=", 0) != 0) continue;
    std::string value = line.substr(17);
    const bool take_away = !value.empty() && value[0] == '~';
    std::istringstream names(take_away ? value.substr(1) : value);
    std::set<std::string> calls;
    for (std::string name; names >> name;) expand(groups, name, calls);
    for (const auto& call : calls) take_away ? (void)allowed.erase(call) : (void)allowed.insert(call);
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
  Gateway gw;
  e2e::RemotePort port;
  ASSERT_TRUE(port.opened());
  std::string links = gw.path("");
  links.pop_back();
  // A folder the unit does not make writable.
  const std::string elsewhere = "/tmp/tc-elsewhere";
  ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
  const Gateway::Keys keys = {
      {"gw_tc_serial_devices", e2e::json_array({e2e::serial_device(gw.path("ttyV1"), "127.0.0.2", port.path())})},
      {"gw_tc_loralan_devices", e2e::json_array({e2e::lora_device(gw.path("lora1"), "00aa11bb22cc33dd"),
                                                 e2e::lora_device(elsewhere + "/lora2", "00aa11bb22cc33de")})}};

  std::vector<std::string> sandbox = {kSandbox, links};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // A sanitizer's runtime makes calls of its own, so only a plain build is filtered.
  const std::set<std::string> calls = unit_syscalls();
  ASSERT_GT(calls.size(), 100u);
  ASSERT_EQ(calls.count("reboot"), 0u);
  const std::string list = links + "/syscalls";
  std::ofstream out(list);
  for (const auto& call : calls) out << call << '\n';
  out.close();
  sandbox.insert(sandbox.end(), {kSeccompExec, list});
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
  EXPECT_TRUE(e2e::path_exists(gw.path("lora1")));
  e2e::expect_bounded_stop(gw);
  rmdir(elsewhere.c_str());
}

}  // namespace
