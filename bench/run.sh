#!/usr/bin/env bash
# Benchmarks of the serial and LoRa bridges, side by side with socat as the
# baseline serial bridge, the whole serial path (service + tc-serial-peer
# against socat + ser2net) with a Modbus RTU master and slave, and the bus.
# Builds its own Release folder (build-bench/), runs everything in private
# network and mount namespaces with a tmpfs on /tmp (root needed), and prints
# the tables.  About 14 minutes after the build.
#
#   bench/run.sh              everything
#   bench/run.sh quick        shorter: scale series only up to 50 serial / 250 LoRa
#   bench/run.sh bus          only the bus, start-up, idle and stop section (about 3 minutes)
#   bench/run.sh calls        only the bus round trips (about a minute)
#   tests/support/run_isolated.sh bench/run.sh --inside compare
#                             (after one full run) only the socat / service
#                             comparisons, the bridge alone and the whole path
# Raw results stay in build-bench/bench-results/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${TC_BENCH_BUILD:-$root/build-bench}"
results="$build/bench-results"
work=/tmp/tc-bench
bus_dir=/tmp/var/run/mbusd
mode="${1:-full}"

# ---------------------------------------------------------------- inside --
wait_for() {
  for _ in $(seq 1 200); do [ -e "$1" ] && return 0; sleep 0.05; done
  echo "bench/run.sh: $1 did not appear" >&2
  return 1
}

serial_item() {  # local device, remote device name
  printf '{"local_device":"%s","remote_device":{"ip":"127.0.0.1","device":"%s","baud_rate":115200,"data_bit":8,"stop_bit":1,"parity":"N","flow_control":0}}' "$1" "$2"
}

# The whole serial path with a real serial program on each end: a Modbus RTU
# master reads 60 holding registers through each pair of bridges from a
# slave behind a null-modem cable (two pseudo-terminals joined by socat, one
# cable per pair).  Ours: the service on the gateway, tc-serial-peer on the
# far side.  Theirs: socat on the gateway, ser2net on the far side.  Every
# TCP hop of both sets TCP_NODELAY.  Three alternating rounds of 5 s.
modbus_compare() {
  local c r dev
  local first=${#pids[@]}
  for c in ours theirs; do
    socat PTY,link="$work/cable-$c-a",raw,echo=0 PTY,link="$work/cable-$c-b",raw,echo=0 2>>"$work/cable.log" &
    pids+=($!)
  done
  for c in ours theirs; do
    wait_for "$work/cable-$c-b"
    tc-bench-modbus slave "$work/cable-$c-b" 2>>"$work/modbus-slave.log" &
    pids+=($!)
  done
  # The peer opens only what --allow names: the cable's end behind the link.
  tc-serial-peer --bind 127.0.0.1 --allow "$(readlink -f "$work/cable-ours-a")" 2>"$work/tc-serial-peer.log" &
  pids+=($!)
  printf '[%s]' "$(serial_item "$work/tty-modbus" "$work/cable-ours-a")" | tc-config set gw_tc_serial_devices - >/dev/null
  transparent-channel 2>"$work/service-modbus.log" &
  pids+=($!)
  printf 'connection: &modbus\n  accepter: tcp(nodelay),127.0.0.1,2000\n  connector: serialdev,%s,115200n81,local\n  options:\n    chardelay: false\n' \
    "$work/cable-theirs-a" >"$work/ser2net.yaml"
  ser2net -n -d -c "$work/ser2net.yaml" >"$work/ser2net.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 1 100); do ss -ltn | grep -q '127.0.0.1:2000 ' && break; sleep 0.05; done
  socat PTY,link="$work/socat-modbus",raw,echo=0 TCP:127.0.0.1:2000,nodelay 2>>"$work/socat-modbus.log" &
  pids+=($!)
  wait_for "$work/socat-modbus"
  for _ in $(seq 1 100); do grep -q 'response code:0' "$work/service-modbus.log" && break; sleep 0.05; done
  : >"$results/modbus.txt"
  for r in 1 2 3; do
    for c in ours theirs; do
      dev="$work/tty-modbus"
      [ "$c" = theirs ] && dev="$work/socat-modbus"
      echo "$c round $r $(tc-bench-modbus master "$dev" 5)" | tee -a "$results/modbus.txt" >&2
    done
  done
  # ser2net ignores SIGTERM while it runs in the foreground.
  for c in "${pids[@]:$first}"; do kill -KILL "$c" 2>/dev/null || true; done
  pids=("${pids[@]:0:$first}")
  tc-config set gw_tc_serial_devices '[]' >/dev/null
}

lora_item() {  # device file, index
  printf '{"devFile":"%s","devEUI":"%016x","upFport":-1,"downFport":10,"confirmed":false,"devAddr":"%08x","nwkskey":"000102030405060708090a0b0c0d0e0f","appskey":"0f0e0d0c0b0a09080706050403020100","mode":"ABP"}' "$1" "$2" "$2"
}

set_devices() {  # serial count, lora count (files ser<i>, lora<i> in $work)
  local s="[" l="[" i
  for ((i = 0; i < $1; i++)); do s+="$( [ $i -gt 0 ] && echo ,)$(serial_item "$work/ser$i" "ser$i")"; done
  for ((i = 0; i < $2; i++)); do l+="$( [ $i -gt 0 ] && echo ,)$(lora_item "$work/lora$i" $((i + 1)))"; done
  printf '%s]' "$s" | tc-config set gw_tc_serial_devices - >/dev/null
  printf '%s]' "$l" | tc-config set gw_tc_loralan_devices - >/dev/null
  tc-config set gw_tc_loralan_mode "$([ "$2" -gt 0 ] && echo pts || echo off)" >/dev/null
}

hold_run() {  # serial links, LoRa files, load seconds, result name
  set_devices "$1" "$2"
  tc-bench-bridge hold --serial "$1" --lora "$2" --dir "$work" --idle 10 --load "$3" \
    --out "$results/$4-$1-$2.txt" -- transparent-channel
  rm -f "$work"/ser* "$work"/lora*
}

inside() {
  # ser2net's port locks, private to this run.
  mount -t tmpfs tmpfs /run/lock
  # ser2net resolves its listening address only when an interface other than
  # the loopback has one.
  ip link add tcbench0 type bridge && ip addr add 192.0.2.1/24 dev tcbench0 && ip link set tcbench0 up
  mkdir -p "$work" "$bus_dir" "$results"
  export PATH="$build/service:$build/tools/tc-config:$build/tools/tc-lora-sim:$build/tools/tc-serial-peer:$build/bench:$PATH"
  pids=()
  trap 'for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done; wait 2>/dev/null || true' EXIT

  # The open private bus the tests use, at the service's fixed address.
  dbus-daemon --config-file="$root/tests/support/dbus_daemon.conf" --address="unix:path=$bus_dir/mbusd_socket" --nofork --nopidfile 2>"$work/bus.log" &
  pids+=($!)
  wait_for "$bus_dir/mbusd_socket"
  echo '{}' >"$work/store.json"
  tc-config serve --store "$work/store.json" 2>"$work/tc-config.log" &
  pids+=($!)
  tc-lora-sim </dev/null >"$work/lora-sim.log" 2>&1 &
  pids+=($!)
  sleep 0.5
  tc-config set gw_tc_loralan_down_packet_interval 100 >/dev/null

  [ "$mode" = bus ] || [ "$mode" = calls ] && { bus_section; cp "$work"/*.log "$results/"; return 0; }

  echo "== serial bridge: socat" >&2
  tc-bench-bridge compare --socat --dir "$work" --out "$results/socat.txt"
  echo "== serial bridge: transparent-channel" >&2
  printf '[%s,%s,%s]' "$(serial_item "$work/tty-echo" echo)" "$(serial_item "$work/tty-up" up)" \
    "$(serial_item "$work/tty-down" down)" | tc-config set gw_tc_serial_devices - >/dev/null
  tc-config set gw_tc_loralan_mode off >/dev/null
  tc-bench-bridge compare --dir "$work" --out "$results/service.txt" -- transparent-channel
  rm -f "$work"/tty-*
  echo "== whole serial path, Modbus RTU: transparent-channel + tc-serial-peer, socat + ser2net" >&2
  modbus_compare
  [ "$mode" = compare ] && { cp "$work"/*.log "$results/"; return 0; }

  local runs
  if [ "$mode" = quick ]; then
    runs="1:0 1:1 10:10 50:0 0:250"
  else
    runs="1:0 1:1 10:10 50:0 100:0 200:0 0:250 0:500 0:1000 200:1000"
  fi
  for r in $runs; do
    echo "== many devices: ${r%:*} serial, ${r#*:} LoRa" >&2
    hold_run "${r%:*}" "${r#*:}" 10 hold
  done
  bus_section
  cp "$work"/*.log "$results/"
}

# ------------------------------------ bus, start-up, idle, stop (inside) --
# Round trips of the service's methods side by side with a trivial dbus-python
# service (the anchor), get_config through the service's own agent, exec to
# the ready line, idle wake-ups per thread, SIGTERM to exit.  Repeated, the
# anchor and the service alternating within each round.
bus_section() {
  [ "$mode" = calls ] || bus_life
  bus_calls
  [ "$mode" = calls ] || bus_idle
}

bus_life() {
  local ready="start, transparent-channel startup success." out="$results/bus.txt" rep serial_one
  serial_one="[$(serial_item "$work/ser0" ser0)]"
  echo "== bus: start-up, idle and stop, serial only" >&2
  tc-config reset >/dev/null
  printf '%s' "$serial_one" | tc-config set gw_tc_serial_devices - >/dev/null
  tc-config set gw_tc_loralan_mode off >/dev/null
  for rep in 1 2 3; do
    tc-bench-bus life --label "serial_only" --ready "$ready" --log "$work/bus-life.log" --idle 10 --out "$out" \
      -- transparent-channel
  done
  echo "== bus: start-up, idle and stop, 1000 LoRa device files" >&2
  set_devices 0 1000
  tc-bench-bus life --label "lora_1000" --ready "$ready" --log "$work/bus-life.log" --idle 10 --out "$out" \
    -- transparent-channel
  rm -f "$work"/lora*
}

bus_calls() {
  local ready="start, transparent-channel startup success." bus="unix:path=$bus_dir/mbusd_socket" out="$results/bus.txt"
  local rep port list peer=0 service anchor
  local svc=(--dest iot.gateway.transparentchannel --path /iot/gateway/transparentchannel --iface iot.gateway.transparentchannel)
  echo "== bus: round trips" >&2
  # One serial link, up: a gateway as it normally runs.  The far end's port
  # is one end of a pseudo-terminal pair.
  socat PTY,link="$work/bus-port",raw,echo=0 PTY,raw,echo=0 2>>"$work/cable.log" &
  pids+=($!)
  wait_for "$work/bus-port"
  port="$(readlink -f "$work/bus-port")"
  list="[$(serial_item "$work/bus-ser" "$port")]"
  tc-config reset >/dev/null
  printf '%s' "$list" | tc-config set gw_tc_serial_devices - >/dev/null
  tc-config set gw_tc_loralan_mode off >/dev/null
  /usr/bin/python3 "$root/bench/bus_anchor.py" "$bus" >"$work/bus-anchor.log" 2>&1 &
  anchor=$!
  pids+=($anchor)
  transparent-channel >>"$work/bus-service.log" 2>&1 &
  service=$!
  pids+=($service)
  for _ in $(seq 1 100); do grep -q "$ready" "$work/bus-service.log" && grep -q ready "$work/bus-anchor.log" && break; sleep 0.05; done
  for rep in 1 2 3; do
    # The peer comes back; a notification makes the service reconnect at once.
    tc-serial-peer --bind 127.0.0.1 --allow "$port" 2>>"$work/tc-serial-peer.log" &
    peer=$!
    pids+=($peer)
    local up
    up=$(grep -c 'response code:0' "$work/bus-service.log" || true)
    for _ in $(seq 1 100); do
      tc-bench-bus calls --label reconnect "${svc[@]}" --member notify_config --arg gw_tc_serial_devices --arg "$list" \
        --count 1 --out /dev/null
      sleep 0.05
      [ "$(grep -c 'response code:0' "$work/bus-service.log" || true)" -gt "$up" ] && break
    done
    tc-bench-bus calls --label anchor_ping --dest tc.bench.anchor --path /tc/bench/anchor --iface tc.bench.anchor \
      --member ping --out "$out"
    tc-bench-bus calls --label service_status "${svc[@]}" --member serial_port_connect_status --out "$out"
    tc-bench-bus calls --label service_notify "${svc[@]}" --member notify_config --arg gw_tc_serial_devices \
      --arg "$list" --out "$out"
    tc-bench-bus agent --label agent_get_config --key gw_tc_serial_devices --out "$out"
    # Without its peer every notification also sends the serial loop to
    # reconnect at once, on the same CPUs.
    kill -TERM "$peer"
    wait "$peer" 2>/dev/null || true
    tc-bench-bus calls --label service_notify_no_peer "${svc[@]}" --member notify_config --arg gw_tc_serial_devices \
      --arg "$list" --out "$out"
  done
  kill -TERM "$service" "$anchor"
  wait "$service" "$anchor" 2>/dev/null || true
}

bus_idle() {
  # Idle wake-ups with a serial link up, and with many device files (the scale
  # run's driver, without its load phase).
  local r
  for r in 1:0 0:1000 200:1000; do
    echo "== bus: idle with ${r%:*} serial links, ${r#*:} LoRa files" >&2
    hold_run "${r%:*}" "${r#*:}" 0 bus-hold
  done
}

if [ "${1:-}" = --inside ]; then
  mode="${2:-full}"
  inside
  exit 0
fi

# --------------------------------------------------------------- outside --
[ "$(id -u)" -eq 0 ] || { echo "bench/run.sh: needs root (private namespaces, fixed ports and bus path)" >&2; exit 1; }
"$root/packaging/install-deps.sh"
# The whole-path comparison's own needs: libmodbus for the master and slave, and ser2net.
if ! dpkg-query -W -f='${Status}' libmodbus-dev ser2net 2>/dev/null | grep -c "install ok installed" | grep -q 2; then
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq libmodbus-dev ser2net >&2
fi
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTC_SANITIZE= -DTC_BUILD_TESTS=OFF -DTC_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target transparent-channel tc-config tc-lora-sim tc-serial-peer tc-micro-bench \
  tc-bench-bridge tc-bench-modbus tc-bench-bus
rm -rf "$results"
mkdir -p "$results"

if [ "$mode" != bus ]; then
  echo "== micro benchmarks" >&2
  "$build/bench/tc-micro-bench" --benchmark_min_time=0.2 >"$results/micro.txt" 2>/dev/null
fi
# The bus section's anchor: dbus-python on the GLib main loop, run by the system's
# python3 (Debian's packages), installed here because the namespace has no network.
for p in python3-dbus python3-gi; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$p" >&2; }
done
# A private /tmp and loopback; the checkout and $build stay visible.
"$root/tests/support/run_isolated.sh" --keep "$build" "$0" --inside "$mode"

[ "$mode" = bus ] || [ "$mode" = calls ] || "$root/bench/report.sh" "$results"
"$root/bench/bus_report.sh" "$results"
