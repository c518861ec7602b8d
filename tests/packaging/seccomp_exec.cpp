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

#if defined(__x86_64__)
constexpr uint32_t kNativeArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kNativeArch = AUDIT_ARCH_AARCH64;
#else
#error "tc-seccomp-exec knows the native ABI of x86_64 and aarch64 only"
#endif

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: tc-seccomp-exec FILE PROGRAM [ARGS...]\n");
    return 2;
  }
  // Every call this machine's C library names, generated at build time.
  const std::map<std::string, long> calls = {
#include "syscall_names.inc"
  };
  const auto load = [](uint32_t offset) { return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset); };
  const auto jump = [](long k, uint8_t yes, uint8_t no) {
    return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(k), yes, no);
  };
  const auto answer = [](uint32_t action) { return sock_filter BPF_STMT(BPF_RET | BPF_K, action); };
  std::vector<sock_filter> allowed;
  bool socket_allowed = false;
  std::ifstream names(argv[1]);
  for (std::string name; std::getline(names, name);) {
    const auto call = calls.find(name);
    if (call == calls.end()) continue;  // not a call of this architecture
    socket_allowed = socket_allowed || call->second == SYS_socket;
    allowed.insert(allowed.end(), {jump(call->second, 0, 1), answer(SECCOMP_RET_ALLOW)});
  }
  const uint32_t end = SECCOMP_RET_KILL_PROCESS;
  std::vector<sock_filter> program = {
      load(offsetof(seccomp_data, arch)), jump(kNativeArch, 1, 0), answer(end), load(offsetof(seccomp_data, nr)),
      // socket(): its address family decides, as RestrictAddressFamilies= does.
      jump(SYS_socket, 0, 5), load(offsetof(seccomp_data, args[0])), jump(AF_UNIX, 1, 0), jump(AF_INET, 0, 1),
      answer(socket_allowed ? SECCOMP_RET_ALLOW : end), answer(SECCOMP_RET_ERRNO | EAFNOSUPPORT)};
  program.insert(program.end(), allowed.begin(), allowed.end());
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
