#!/bin/sh
# Runs a program in its own network and mount namespaces with a private
# /tmp: the service's bus path and UDP ports are fixed, so tests that use them
# must not meet each other or a real gateway.
#   run_isolated.sh [--keep DIR]... PROGRAM [ARGS...]
# The checkout this script lives in and every --keep folder stay visible at
# their own paths, so a checkout or build folder under /tmp still works.
if [ "${TC_INSIDE_NAMESPACE:-}" = 1 ]; then
  keep="$(cd "$(dirname "$0")/../.." && pwd)"
  while [ "$1" = --keep ]; do keep="$keep
$2"; shift 2; done
  here="$PWD"
  # From the old /tmp as working folder, "./path" still reaches what the
  # new tmpfs hides.
  cd /tmp && mount -t tmpfs tmpfs /tmp || exit 1
  echo "$keep" | while read -r dir; do
    case "$dir" in
      /tmp/*) mkdir -p "$dir" && mount --no-canonicalize --bind "./${dir#/tmp/}" "$dir" || exit 1 ;;
    esac
  done || exit 1
  cd "$here" 2>/dev/null || cd /
  ip link set lo up || exit 1
  exec "$@"
fi
if unshare --net --mount --propagation private true 2>/dev/null; then
  TC_INSIDE_NAMESPACE=1 exec unshare --net --mount --propagation private "$0" "$@"
fi
while [ "$1" = --keep ]; do shift 2; done
msg="$(basename "$1") needs 'unshare --net --mount' (run as root)"
[ "${CI:-}" = true ] && { echo "FAILED: $msg" >&2; exit 1; }
echo "SKIPPED: $msg" >&2
exit 77
