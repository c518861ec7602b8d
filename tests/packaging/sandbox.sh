#!/bin/sh
# sandbox.sh LINKS PROGRAM [ARGS...]: runs PROGRAM (as the same process)
# under what the systemd unit imposes that a test can impose without systemd:
# the file system read-only but for the folder LINKS (and /dev, /proc, /sys), a
# /dev of its own with only the basic devices and the pseudo-terminals, no new
# privileges and no capabilities.  PROGRAM may be seccomp_exec.py, for the
# system-call filter.  Needs root.
set -e
if [ "${TC_IN_SANDBOX:-}" != 1 ]; then
  TC_IN_SANDBOX=1 exec unshare --mount --propagation private "$0" "$@"
fi
links="$1"
shift

# PrivateDevices=yes: built aside on /tmp, then moved over /dev.  The nodes
# are copies, as systemd makes them: ptmx finds its pts beside it.
dev=$(mktemp -d /tmp/sandbox-dev.XXXXXX)
mount -t tmpfs -o mode=755 tmpfs "$dev"
node() { mknod -m 666 "$dev/$1" c "$2" "$3"; }
node null 1 3; node zero 1 5; node full 1 7; node random 1 8; node urandom 1 9; node tty 5 0; node ptmx 5 2
mkdir "$dev/pts" "$dev/shm"
mount --bind /dev/pts "$dev/pts"
mount -t tmpfs -o mode=1777 tmpfs "$dev/shm"
mount --move "$dev" /dev

# ProtectSystem=strict with LINKS as the one writable folder.
mount --bind "$links" "$links"
findmnt -rn -o TARGET,OPTIONS | while read -r target options; do
  case "$target" in
    /dev | /dev/* | /proc | /proc/* | /sys | /sys/* | "$links") ;;
    *) case ",$options," in *,ro,*) ;; *) mount -o remount,bind,ro "$target" ;; esac ;;
  esac
done

# NoNewPrivileges=yes, and CapabilityBoundingSet= (root keeps no capability
# over exec).
exec setpriv --no-new-privs --bounding-set=-all --inh-caps=-all -- "$@"
