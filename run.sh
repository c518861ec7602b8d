#!/usr/bin/env bash
# Installs what is missing, builds, and runs the service in the foreground.
# Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")"
./packaging/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)"
exec ./build/service/transparent-channel
