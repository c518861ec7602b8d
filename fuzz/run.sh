#!/usr/bin/env bash
# fuzz/run.sh [SECONDS]: builds the libFuzzer targets (clang, ASan + UBSan) in
# build-fuzz/ and runs each for SECONDS (default 30) on a copy of its seeds in
# fuzz/corpus/<target>/; non-zero when one finds a crash, a leak, a time-out
# or runs out of memory.  Reproducers stay in build-fuzz/artifacts/<target>/
# (replay: build-fuzz/fuzz/<target> FILE), logs in build-fuzz/logs/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
case "$seconds" in '' | *[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;; esac

# target:longest input (a serial stream spans several of the largest frames).
targets=(fuzz_serial_stream:8192 fuzz_lora_datagram:2048 fuzz_config:4096 fuzz_dbus_message:4096)
build=build-fuzz
./packaging/install-deps.sh
mkdir -p "$build/logs"
echo "fuzz: building in $build"
if ! { CC=clang CXX=clang++ cmake -S . -B "$build" -DTC_FUZZ=ON -DTC_BUILD_TESTS=OFF &&
       cmake --build "$build" -j "$(nproc)" --target "${targets[@]%%:*}"; } >"$build/logs/build.log" 2>&1; then
  tail -n 40 "$build/logs/build.log" >&2
  echo "fuzz: build failed; log $build/logs/build.log" >&2
  exit 1
fi

# Whatever the caller set: leaks count, and every report ends the run.
export ASAN_OPTIONS="detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=()
for entry in "${targets[@]}"; do
  name="${entry%%:*}"
  log="$build/logs/$name.log"
  artifacts="$build/artifacts/$name/"
  # The fuzzer adds to its corpus; the committed seeds stay as they are.
  rm -rf "$build/corpus/$name" "$artifacts"
  mkdir -p "$build/corpus/$name" "$artifacts"
  cp fuzz/corpus/"$name"/* "$build/corpus/$name"/
  echo "fuzz: $name for ${seconds}s"
  if "$build/fuzz/$name" "$build/corpus/$name" -dict="fuzz/$name.dict" -max_total_time="$seconds" \
      -max_len="${entry#*:}" -timeout=10 -rss_limit_mb=1024 -malloc_limit_mb=256 -artifact_prefix="$artifacts" -print_final_stats=1 \
      >"$log" 2>&1; then
    grep -E '^(Done|stat::number_of_executed_units)' "$log" | tail -n 2 | sed 's/^/  /'
  else
    failed+=("$name")
    echo "fuzz: $name FAILED; log $log, reproducer:" >&2
    ls "$artifacts" | sed "s|^|  $artifacts|" >&2
    grep -E 'ERROR|SUMMARY|runtime error|fuzz check failed' "$log" | head -n 20 >&2 || true
  fi
done
[ ${#failed[@]} -eq 0 ] || { echo "fuzz: failed: ${failed[*]}" >&2; exit 1; }
echo "fuzz: all ${#targets[@]} targets clean (${seconds}s each)"
