#!/bin/sh
# Runs a test program in its own network and mount namespaces with a private
# /tmp: the service's bus path and UDP ports are fixed, so tests that use them
# must not meet each other or a real gateway.
if [ "${TC_INSIDE_NAMESPACE:-}" = 1 ]; then
  mount -t tmpfs tmpfs /tmp || exit 1
  ip link set lo up || exit 1
  exec "$@"
fi
if unshare --net --mount --propagation private true 2>/dev/null; then
  TC_INSIDE_NAMESPACE=1 exec unshare --net --mount --propagation private "$0" "$@"
fi
msg="$(basename "$1") needs 'unshare --net --mount' (run as root)"
if [ "${CI:-}" = true ]; then
  echo "FAILED: $msg" >&2
  exit 1
fi
echo "SKIPPED: $msg" >&2
exit 77
