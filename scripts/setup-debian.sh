#!/usr/bin/env bash
# Installs what building, testing and running zeph_nettools needs on Debian 12.
# Idempotent: does nothing when every package is already there.
set -euo pipefail

PACKAGES=(
  cmake make g++ pkg-config ccache
  libssl-dev libc-ares-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang lld libclang-rt-14-dev
  coturn tinyproxy irtt
  python3 procps iproute2
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# The packaged daemons are not wanted as services: tests start their own.
for svc in coturn tinyproxy irtt; do
  $SUDO systemctl disable --now "$svc" >/dev/null 2>&1 || true
  $SUDO service "$svc" stop >/dev/null 2>&1 || true
done
