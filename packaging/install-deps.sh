#!/usr/bin/env bash
# Installs the Debian packages needed to build, test and run the demo, when
# any of them is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libdbus-1-dev libjsoncpp-dev dbus-daemon dbus-bin socat
  libgtest-dev libbenchmark-dev
  clang libclang-rt-dev
  iproute2 util-linux
  systemd libglib2.0-bin python3-seccomp
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}" >&2
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >&2
