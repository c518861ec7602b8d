#!/usr/bin/env bash
# Prints the Markdown tables of one bench/run.sh run from its results folder.
set -euo pipefail
r="${1:?usage: bench/report.sh RESULTS_DIR}"

# get FILE LINE_PREFIX FIELD: the word after FIELD on the first line starting with LINE_PREFIX.
get() {
  [ -f "$1" ] || { echo "-"; return; }
  awk -v p="$2" -v f="$3" 'index($0, p) == 1 { for (i = 1; i < NF; i++) if ($i == f) { print $(i + 1); found = 1; exit } }
    END { if (!found) print "-" }' "$1"
}
# Highest pace (MB/s) at which both bridges delivered every byte intact.
common_step() {
  awk -v d="$1" '$1 == d && $2 == "step" && $4 == "intact" && $5 == 1 { n[$3]++ } END { m = 0; for (s in n) if (n[s] == 2 && s + 0 > m) m = s + 0; print m }' \
    "$r/socat.txt" "$r/service.txt"
}
# verdict ANCHOR OURS [lower|higher [ANCHOR_NAME]]: lower is better unless
# the third argument is "higher"; the ratio is ours over the anchor's.
verdict() {
  awk -v a="$1" -v b="$2" -v dir="${3:-lower}" -v name="${4:-socat}" 'BEGIN {
    if (a == "-" || b == "-" || a + 0 == 0) { print "n/a"; exit }
    ok = dir == "higher" ? (b + 0 >= a + 0) : (b + 0 <= a + 0)
    printf "%s (%.2fx %s)\n", ok ? "met" : "missed", (b + 0) / (a + 0), name }'
}

S="$r/socat.txt"
T="$r/service.txt"
echo "### Serial bridge, side by side (one run)"
echo
echo "| measure | socat | transparent-channel | target |"
echo "|---|---|---|---|"
for d in up down; do
  a=$(get "$S" "$d lossless" lossless_mb_per_s); b=$(get "$T" "$d lossless" lossless_mb_per_s)
  echo "| lossless throughput $d (MB/s) | $a | $b | $(verdict "$a" "$b" higher) |"
done
for n in 1 64 1024; do
  for q in p50_us p99_us; do
    a=$(get "$S" "echo $n " $q); b=$(get "$T" "echo $n " $q)
    echo "| echo $n B $q | $a | $b | $(verdict "$a" "$b") |"
  done
done
for q in p50_us p99_us max_us; do
  a=$(get "$S" "stream 16 " $q); b=$(get "$T" "stream 16 " $q)
  echo "| one-way, 16 B every 2 ms, no answer, $q | $a | $b | $(verdict "$a" "$b") |"
done
for d in up down; do
  s=$(common_step "$d")
  if [ "$s" != 0 ]; then
    a=$(get "$S" "$d step $s " cpu_s_per_mb); b=$(get "$T" "$d step $s " cpu_s_per_mb)
    echo "| CPU s/MB $d at $s MB/s | $a | $b | $(verdict "$a" "$b") |"
  else
    echo "| CPU s/MB $d | - | - | no pace both delivered intact |"
  fi
done
echo "| idle wake-ups/s (device open, link up) | $(get "$S" idle wakeups_per_s) | $(get "$T" idle wakeups_per_s) | |"
echo "| idle CPU % | $(get "$S" idle cpu_pct) | $(get "$T" idle cpu_pct) | |"
echo "| threads (idle wake-ups/s of each) | $(get "$S" idle threads) ($(get "$S" idle per_thread)) | $(get "$T" idle threads) ($(get "$T" idle per_thread)) | |"
for f in hwm_kb rss_anon_kb pss_kb; do
  echo "| $f after the run | $(get "$S" memory_after $f) | $(get "$T" memory_after $f) | |"
done
echo
echo "Ramp steps (pace MB/s: intact?, delivered MB/s, CPU s/MB):"
echo
echo '```'
for f in "$S" "$T"; do
  echo "$(basename "$f" .txt):"
  grep ' step ' "$f" | awk '{ printf "  %-4s %5s MB/s  intact %s  %8s MB/s  %s s/MB\n", $1, $3, $5, $7, $9 }'
done
echo '```'
echo

M="$r/modbus.txt"
# median SIDE FIELD: the median over the rounds of SIDE ("ours", "theirs").
median() {
  [ -f "$M" ] || { echo "-"; return; }
  awk -v side="$1" -v f="$2" '$1 == side { for (i = 1; i < NF; i++) if ($i == f) print $(i + 1) }' "$M" |
    sort -g | awk '{ v[NR] = $1 } END { print NR ? v[int((NR + 1) / 2)] : "-" }'
}
echo "### Whole serial path, Modbus RTU request/response (median of three alternating rounds)"
echo
echo "| measure | socat + ser2net | transparent-channel + tc-serial-peer | target |"
echo "|---|---|---|---|"
a=$(median theirs tps); b=$(median ours tps)
echo "| transactions/s, 60 registers | $a | $b | $(verdict "$a" "$b" higher "socat + ser2net") |"
for q in p50_us p99_us; do
  a=$(median theirs $q); b=$(median ours $q)
  echo "| transaction $q | $a | $b | $(verdict "$a" "$b" lower "socat + ser2net") |"
done
echo
echo "Rounds:"
echo
echo '```'
[ -f "$M" ] && cat "$M"
echo '```'
echo
H="$r/hold-10-10.txt"
echo "### Memory: one service process with 10 serial + 10 LoRa devices vs one socat bridging one port"
echo
echo "| | socat, 1 port | transparent-channel, 10+10 | target |"
echo "|---|---|---|---|"
for f in rss_anon_kb pss_kb; do
  a=$(get "$S" memory $f); b=$(get "$H" memory $f)
  echo "| $f | $a | $b | $(awk -v a="$a" -v b="$b" 'BEGIN { if (a == "-" || b == "-") print "n/a"; else print (b + 0 < a + 0 ? "met" : "missed") }') |"
done
echo

echo "### Many devices in one process"
echo
echo "| serial | LoRa | links up | start-up s | RSS kB | RssAnon kB | PSS kB | idle wake-ups/s (per thread) | idle CPU % | load CPU % | load wake-ups/s | serial KB/s delivered | LoRa KB/s delivered |"
echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|"
for n in $(cd "$r" && ls hold-*.txt 2>/dev/null | sed 's/^hold-//; s/\.txt$//' | sort -t- -k2,2n -k1,1n); do
  f="$r/hold-$n.txt"; s=${n%-*}; l=${n#*-}
  echo "| $s | $l | $(get "$f" startup links_up) | $(get "$f" startup ready_s) | $(get "$f" "memory " rss_kb) | $(get "$f" "memory " rss_anon_kb) | $(get "$f" "memory " pss_kb) | $(get "$f" idle wakeups_per_s) ($(get "$f" idle per_thread)) | $(get "$f" idle cpu_pct) | $(get "$f" load cpu_pct) | $(get "$f" load wakeups_per_s) | $(get "$f" load serial_kb_per_s) | $(get "$f" load lora_kb_per_s) |"
done
echo

# Marginal memory per device: least-squares slope over the single-kind runs.
slope() {  # kind column (2 = serial, 3 = LoRa), line prefix, field
  for f in "$r"/hold-*.txt; do
    n=$(basename "$f" .txt); n=${n#hold-}; s=${n%-*}; l=${n#*-}
    echo "$s $l $(get "$f" "$2" "$3")"
  done | awk -v k="$1" '$3 != "-" && ((k == 2 && $2 == 0) || (k == 3 && $1 == 0)) { x = $(k - 1); sx += x; sy += $3; sxx += x * x; sxy += x * $3; n++ }
    END { if (n < 2 || n * sxx == sx * sx) print "-"; else printf "%.4g\n", (n * sxy - sx * sy) / (n * sxx - sx * sx) }'
}
echo "Marginal cost per device (least-squares slope over the runs with one kind of device only):"
echo "serial $(slope 2 "memory " rss_anon_kb) kB RssAnon, $(slope 2 "memory " pss_kb) kB PSS, $(slope 2 load cpu_pct) CPU % at 1 KB/s;"
echo "LoRa $(slope 3 "memory " rss_anon_kb) kB RssAnon, $(slope 3 "memory " pss_kb) kB PSS, $(slope 3 load cpu_pct) CPU % at 1 KB/s."
echo
echo "### Micro benchmarks"
echo
echo '```'
grep -E '^(BM_|Benchmark|-)' "$r/micro.txt" || true
echo '```'
