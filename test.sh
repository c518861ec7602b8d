#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test through CTest.
#   ./test.sh                      normal build in build/
#   ./test.sh --sanitize=address   ASan + UBSan build in build-address/
#   ./test.sh --sanitize=thread    TSan build in build-thread/
# Extra arguments after -- go to ctest (e.g. ./test.sh -- -R serial).
# The normal run also fuzzes each libFuzzer target for TC_FUZZ_SECONDS
# (default 30; 0 skips it), before the suite so that CTest's summary ends
# the output.
set -euo pipefail
cd "$(dirname "$0")"

sanitize=""
ctest_args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize=address|--sanitize=thread) sanitize="${1#--sanitize=}" ;;
    --) shift; ctest_args=("$@"); break ;;
    *) echo "usage: $0 [--sanitize=address|thread] [-- ctest args]" >&2; exit 2 ;;
  esac
  shift
done

./packaging/install-deps.sh

build="build${sanitize:+-$sanitize}"
werror=OFF
[ "${CI:-}" = true ] && werror=ON
cmake -S . -B "$build" -DTC_SANITIZE="$sanitize" -DTC_WERROR="$werror" >/dev/null
cmake --build "$build" -j "$(nproc)"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
fuzz_status=0
fuzz_seconds="${TC_FUZZ_SECONDS:-30}"
if [ -z "$sanitize" ] && [ ${#ctest_args[@]} -eq 0 ] && [ "$fuzz_seconds" != 0 ]; then
  fuzz/run.sh "$fuzz_seconds" || fuzz_status=$?
fi

cd "$build"
ctest_status=0
ctest --output-on-failure -j "$(nproc)" "${ctest_args[@]}" || ctest_status=$?
if [ "$fuzz_status" -ne 0 ]; then
  echo "fuzzing failed (see above)" >&2
  exit "$fuzz_status"
fi
exit "$ctest_status"
