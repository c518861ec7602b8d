#!/usr/bin/env bash
# Prints the Markdown tables of bench/run.sh's bus section from its results folder.
set -euo pipefail
r="${1:?usage: bench/bus_report.sh RESULTS_DIR}"
B="$r/bus.txt"
[ -f "$B" ] || { echo "no bus results in $r" >&2; exit 0; }

# nth LABEL FIELD N: the word after FIELD on the Nth line whose first word is LABEL.
nth() {
  awk -v l="$1" -v f="$2" -v n="$3" '$1 == l && index($0, " " f " ") && ++k == n { for (i = 2; i < NF; i++) if ($i == f) { print $(i + 1); exit } }' "$B"
}
verdict() {  # value, bound: met when value <= bound
  awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "") print "n/a"; else print (a + 0 <= b + 0 ? "met" : "missed") }'
}

echo "### Bus round trips (µs; a plain libdbus client, 1000 calls after 50 warm-up, rounds alternate; the service has one serial link up, and in the last column its peer is gone)"
echo
echo "| round | anchor p50 / p99 | serial_port_connect_status p50 / p99 | notify_config p50 / p99 | get_config via the agent p50 / p99 | status, notify p50 ≤ anchor p50 | p99 < 1000 | get_config p50 < 500 | notify_config, peer absent p50 / p99 |"
echo "|---|---|---|---|---|---|---|---|---|"
rounds=$(awk '$1 == "anchor_ping" { n++ } END { print n + 0 }' "$B")
for ((k = 1; k <= rounds; k++)); do
  a50=$(nth anchor_ping p50_us $k); a99=$(nth anchor_ping p99_us $k)
  s50=$(nth service_status p50_us $k); s99=$(nth service_status p99_us $k)
  n50=$(nth service_notify p50_us $k); n99=$(nth service_notify p99_us $k)
  g50=$(nth agent_get_config p50_us $k); g99=$(nth agent_get_config p99_us $k)
  x50=$(nth service_notify_no_peer p50_us $k); x99=$(nth service_notify_no_peer p99_us $k)
  worst50=$(awk -v a="$s50" -v b="$n50" 'BEGIN { print (a + 0 > b + 0 ? a : b) }')
  worst99=$(awk -v a="$s99" -v b="$n99" 'BEGIN { print (a + 0 > b + 0 ? a : b) }')
  echo "| $k | $a50 / $a99 | $s50 / $s99 | $n50 / $n99 | $g50 / $g99 | $(verdict "$worst50" "$a50") | $(verdict "$worst99" 999.999) | $(verdict "$g50" 499.999) | $x50 / $x99 |"
done
echo

echo "### Start-up, idle, stop (exec to \"start, transparent-channel startup success.\"; idle 10 s after 2 s; SIGTERM to exit)"
echo
echo "| configuration | run | start-up ms | idle wake-ups/s | per thread, in start order | idle CPU % | stop ms | exit |"
echo "|---|---|---|---|---|---|---|---|"
for label in serial_only lora_1000; do
  runs=$(awk -v l="$label" '$1 == l && $2 == "startup_ms" { n++ } END { print n + 0 }' "$B")
  for ((k = 1; k <= runs; k++)); do
    echo "| $label | $k | $(nth "$label" startup_ms $k) | $(nth "$label" wakeups_per_s $k) | $(nth "$label" per_thread $k) | $(nth "$label" cpu_pct $k) | $(nth "$label" stop_ms $k) | $(nth "$label" exit $k) |"
  done
done
echo

echo "### Idle with links up and device files (tc-bench-bridge hold, no load)"
echo
echo "| serial links | LoRa files | start-up s (all links and files) | idle wake-ups/s | per thread, busiest first | idle CPU % |"
echo "|---|---|---|---|---|---|"
for f in "$r"/bus-hold-*.txt; do
  [ -f "$f" ] || continue
  n=$(basename "$f" .txt); n=${n#bus-hold-}
  get() { awk -v p="$1" -v f="$2" 'index($0, p) == 1 { for (i = 1; i < NF; i++) if ($i == f) { print $(i + 1); exit } }' "$f"; }
  echo "| $(get startup links_up) | ${n#*-} | $(get startup ready_s) | $(get idle wakeups_per_s) | $(get idle per_thread) | $(get idle cpu_pct) |"
done
