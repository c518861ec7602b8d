#!/usr/bin/env bash
# The newcomer's demo: builds the service and its companion programs, then runs
# a small gateway (message bus, configuration manager, a serial peer whose
# "serial port" is a pseudo-terminal, the LoRa simulator, and the service).
#
#   ./run.sh         build and run the demo in the foreground; Ctrl-C stops it all
#   ./run.sh shell   (second terminal) a shell inside the running demo
#
# As root the demo runs in private network and mount namespaces with its own
# /tmp, so the fixed bus path and ports of a real gateway are never touched.
set -euo pipefail
root="$(cd "$(dirname "$0")" && pwd)"
build="$root/build"
pidfile="$build/demo.pid"
demo=/tmp/tc-demo
bus_dir=/tmp/var/run/mbusd
tools_path="$build/service:$build/tools/tc-config:$build/tools/tc-serial-peer:$build/tools/tc-lora-sim:$build/tools/tc-status"

demo_shell() {
  [ -s "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null || {
    echo "no demo is running: start ./run.sh in another terminal first" >&2
    exit 1
  }
  local rc="$build/demo.bashrc"
  printf 'PS1="(tc-demo) \\w\\$ "\nPATH="%s:$PATH"\ncd %s\n' "$tools_path" "$demo" >"$rc"
  if [ "$(id -u)" -eq 0 ]; then
    exec nsenter -t "$(cat "$pidfile")" -n -m bash --rcfile "$rc" -i
  fi
  exec bash --rcfile "$rc" -i
}

wait_for() {  # path, what
  for _ in $(seq 1 100); do [ -e "$1" ] && return 0; sleep 0.05; done
  echo "run.sh: $2 did not come up" >&2
  return 1
}

run_demo() {
  if [ "${TC_DEMO_NAMESPACE:-}" != 1 ] && [ -e "$bus_dir/mbusd_socket" ]; then
    echo "run.sh: $bus_dir/mbusd_socket exists: a gateway bus (or another demo) runs here" >&2
    exit 1
  fi
  mkdir -p "$demo" "$bus_dir"
  echo $$ >"$pidfile"
  export PATH="$tools_path:$PATH"

  # Background jobs get process groups of their own, so Ctrl-C reaches only
  # this script, which then stops everything in order.
  set -m
  pids=()
  stop_all() {
    trap - INT TERM EXIT
    echo
    echo "stopping the demo..."
    [ -n "${service_pid:-}" ] && kill -TERM "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill -TERM "${pids[$i]}" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$demo" "$bus_dir" "$pidfile" "$build/demo.bashrc"
    rmdir -p /tmp/var/run 2>/dev/null || true
    exit 0
  }
  trap stop_all INT TERM EXIT

  # The open private bus the tests use, at the service's fixed address.
  dbus-daemon --config-file="$root/tests/support/dbus_daemon.conf" --address="unix:path=$bus_dir/mbusd_socket" --nofork --nopidfile 2>"$demo/bus.log" &
  pids+=($!)
  wait_for "$bus_dir/mbusd_socket" "the message bus"

  cp "$root/packaging/demo-config.json" "$demo/store.json"
  tc-config serve --store "$demo/store.json" 2>"$demo/tc-config.log" &
  pids+=($!)

  # The "remote serial port": one end for tc-serial-peer, the other for you.
  socat PTY,link="$demo/remote-serial0",raw,echo=0 PTY,link="$demo/remote-console",raw,echo=0 2>"$demo/socat.log" &
  pids+=($!)
  wait_for "$demo/remote-console" "the remote serial port"
  # The peer opens only what --allow names: here the one pseudo-terminal behind the link.
  tc-serial-peer --bind 127.0.0.1 --allow "$(readlink -f "$demo/remote-serial0")" 2>"$demo/tc-serial-peer.log" &
  pids+=($!)
  tc-lora-sim </dev/null &
  pids+=($!)
  sleep 0.5

  transparent-channel &
  service_pid=$!
  wait_for "$demo/ttyBridge0" "the serial device file" || true

  cat <<TEXT

==============================================================================
 transparent-channel demo is running${TC_DEMO_NAMESPACE:+ (in a private network and /tmp)}.
 Open a second terminal and run:   ./run.sh shell
 then try:
   cat remote-console &                  # the far end of the serial bridge
   echo hello > ttyBridge0               # ... shows "hello" there
   echo world > ttyLora0                 # a "downlink" line appears in this terminal
   cat ttyLora0 &                        # then an uplink from the LoRa device:
   tc-lora-sim uplink 00aa11bb22cc33dd 48656c6c6f0a 5
   tc-config list                        # the configuration; change a key with:
   tc-config set gw_tc_loralan_down_packet_interval 250
   tc-status                             # every link's counters (--watch 2 to follow)
   dbus-send --bus=unix:path=$bus_dir/mbusd_socket --print-reply \\
     --dest=iot.gateway.transparentchannel /iot/gateway/transparentchannel \\
     iot.gateway.transparentchannel.serial_port_connect_status
 Logs of the helpers: $demo/*.log.   Ctrl-C here stops everything.
==============================================================================

TEXT
  wait "$service_pid" || true
  service_pid=""
  stop_all
}

if [ "${1:-}" = shell ]; then
  demo_shell
fi
if [ "${1:-}" = --inside ]; then
  run_demo
fi
[ $# -eq 0 ] || { echo "usage: $0 [shell]" >&2; exit 2; }

"$root/packaging/install-deps.sh"
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j "$(nproc)" --target transparent-channel tc-config tc-serial-peer tc-lora-sim tc-status

if [ "$(id -u)" -eq 0 ] && unshare --net --mount --propagation private true 2>/dev/null; then
  TC_DEMO_NAMESPACE=1 exec "$root/tests/support/run_isolated.sh" --keep "$build" "$0" --inside
fi
echo "run.sh: not root, so the demo uses this machine's /tmp and loopback ports" >&2
exec "$0" --inside
