// tc-seccomp-exec FILE PROGRAM [ARGS...]: runs PROGRAM under a system-call
// filter.  The calls named in FILE (one a line) are allowed, socket() only
// for AF_UNIX and AF_INET, and only the native ABI; any other call ends the
// process at once, so that a test sees what a unit's filter would refuse.
// The caller sets no_new_privs first (setpriv --no-new-privs).

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

#if defined(__x86_64__)
constexpr uint32_t kNativeArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kNativeArch = AUDIT_ARCH_AARCH64;
#else
#error "tc-seccomp-exec knows the native ABI of x86_64 and aarch64 only"
#endif

// Every call this machine's C library names, generated at build time.
const std::map<std::string, long> kCalls = {
#include "syscall_names.inc"
};

sock_filter statement(uint16_t code, uint32_t k) { return BPF_STMT(code, k); }
sock_filter jump_if(uint32_t k, uint8_t if_equal, uint8_t if_not) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, k, if_equal, if_not);
}
sock_filter load(uint32_t offset) { return statement(BPF_LD | BPF_W | BPF_ABS, offset); }
sock_filter answer(uint32_t action) { return statement(BPF_RET | BPF_K, action); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: tc-seccomp-exec FILE PROGRAM [ARGS...]\n");
    return 2;
  }
  std::vector<long> allowed;
  bool socket_allowed = false;
  std::ifstream names(argv[1]);
  for (std::string name; std::getline(names, name);) {
    const auto call = kCalls.find(name);
    if (call == kCalls.end()) continue;  // not a call of this architecture
    if (call->second == SYS_socket) {
      socket_allowed = true;
    } else {
      allowed.push_back(call->second);
    }
  }
  const uint32_t end = SECCOMP_RET_KILL_PROCESS;
  std::vector<sock_filter> program = {
      load(offsetof(seccomp_data, arch)),
      jump_if(kNativeArch, 1, 0),
      answer(end),
      load(offsetof(seccomp_data, nr)),
      // socket(): its address family decides, as RestrictAddressFamilies= does.
      jump_if(SYS_socket, 0, 5),
      load(offsetof(seccomp_data, args[0])),
      jump_if(AF_UNIX, 1, 0),
      jump_if(AF_INET, 0, 1),
      answer(socket_allowed ? SECCOMP_RET_ALLOW : end),
      answer(SECCOMP_RET_ERRNO | EAFNOSUPPORT),
  };
  for (long nr : allowed) {
    program.push_back(jump_if(static_cast<uint32_t>(nr), 0, 1));
    program.push_back(answer(SECCOMP_RET_ALLOW));
  }
  program.push_back(answer(end));

  sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
    std::fprintf(stderr, "tc-seccomp-exec: %s\n", std::strerror(errno));
    return 1;
  }
  execv(argv[2], argv + 2);
  std::fprintf(stderr, "tc-seccomp-exec: %s: %s\n", argv[2], std::strerror(errno));
  return 127;
}
