#!/usr/bin/env bash
# Builds zeph_nettools and runs `zeph-nettools demo` against peers it starts
# itself on loopback. Extra arguments go to the demo (e.g. --json).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPH_BUILD_TESTS=OFF -DZEPH_BUILD_BENCH=OFF >/dev/null
cmake --build build/release -j"$(nproc)" --target zeph-nettools
exec build/release/tools/zeph-nettools demo "$@"
