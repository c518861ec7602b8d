#!/usr/bin/python3
# seccomp_exec.py UNIT PROGRAM [ARGS...]: runs PROGRAM under UNIT's SystemCallFilter= lines
# (groups expanded as `systemd-analyze syscall-filter` lists them), socket() for AF_UNIX and
# AF_INET only, the native ABI only.  Any other call ends the process, so that a test sees
# what the unit would refuse.  The caller sets no_new_privs first (setpriv --no-new-privs).
import errno, os, socket, subprocess, sys
import seccomp

groups, group = {}, None
listing = subprocess.run(["systemd-analyze", "syscall-filter"], check=True, capture_output=True, text=True).stdout
for line in listing.splitlines():
    if line.startswith("@"):
        group = groups.setdefault(line, [])
    elif line.startswith("    ") and not line.strip().startswith("#") and group is not None:
        group.append(line.strip())

allowed = set()
for line in open(sys.argv[1]):
    if not line.startswith("SystemCallFilter="):
        continue
    value = line[len("SystemCallFilter="):]
    names = value.lstrip("~").split()
    while names:
        name = names.pop()
        if name in groups:
            names += groups[name]
        elif value.startswith("~"):
            allowed.discard(name)
        else:
            allowed.add(name)
if len(allowed) < 100 or "reboot" in allowed:
    sys.exit("seccomp_exec: the unit's filter did not read as expected")

calls = seccomp.SyscallFilter(seccomp.KILL_PROCESS)
for name in allowed - {"socket"}:
    try:
        calls.add_rule(seccomp.ALLOW, name)
    except RuntimeError:
        pass  # not a call this library knows
if "socket" in allowed:
    # The address family decides, as RestrictAddressFamilies= does.
    for family in (socket.AF_UNIX, socket.AF_INET):
        calls.add_rule(seccomp.ALLOW, "socket", seccomp.Arg(0, seccomp.EQ, family))
    calls.add_rule(seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", seccomp.Arg(0, seccomp.GT, socket.AF_INET))
    calls.add_rule(seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", seccomp.Arg(0, seccomp.EQ, socket.AF_UNSPEC))
calls.load()
os.execv(sys.argv[2], sys.argv[2:])
