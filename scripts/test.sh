#!/usr/bin/env bash
# Builds zeph_nettools with warnings as errors and runs the whole test suite,
# then again under AddressSanitizer + UndefinedBehaviorSanitizer, the
# concurrent parts under ThreadSanitizer, and each fuzz target for a short
# while. Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh

JOBS=$(nproc)
# Most tests wait on the library's long timers, not on the CPU.
CTEST_JOBS=${CTEST_JOBS:-$((JOBS * 4))}
FUZZ_SECONDS=${FUZZ_SECONDS:-10}
LAUNCHER=()
command -v ccache >/dev/null && LAUNCHER=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)

stage() { echo; echo "==== $* ($(date +%T))"; }

stage "build (warnings are errors)"
cmake -S . -B build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPH_WERROR=ON "${LAUNCHER[@]}" >/dev/null
cmake --build build/test -j"$JOBS"
stage "test suite"
(cd build/test && ctest -j"$CTEST_JOBS" --output-on-failure --timeout 300)

stage "install and embed with find_package"
rm -rf build/install build/embed
cmake --install build/test --prefix build/install >/dev/null
cmake -S tests/embed -B build/embed -DCMAKE_PREFIX_PATH="$PWD/build/install" >/dev/null
cmake --build build/embed -j"$JOBS" >/dev/null
LD_LIBRARY_PATH="$PWD/build/install/lib" build/embed/embed_check
# The same through pkg-config, and the installed programs answer --version.
export PKG_CONFIG_PATH="$PWD/build/install/lib/pkgconfig"
cc tests/embed/main.c -o build/embed/embed_check_pc $(pkg-config --cflags --libs zeph_nettools)
LD_LIBRARY_PATH="$PWD/build/install/lib" build/embed/embed_check_pc
for prog in zeph-nettools zeph-media-peer zeph-udp-relay zeph-quality-server; do
  LD_LIBRARY_PATH="$PWD/build/install/lib" "build/install/bin/$prog" --version
done

stage "build with AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DZEPH_WERROR=ON -DZEPH_SANITIZE=ON -DZEPH_BUILD_BENCH=OFF "${LAUNCHER[@]}" >/dev/null
cmake --build build/asan -j"$JOBS"
stage "test suite under ASan+UBSan"
(cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest -j"$CTEST_JOBS" --output-on-failure --timeout 300)

if [ -n "${ZEPH_TSAN_TESTS:-}" ] || [ -f tests/tsan_tests.txt ]; then
  PATTERN=${ZEPH_TSAN_TESTS:-$(grep -v '^#' tests/tsan_tests.txt | paste -sd'|')}
  stage "build with ThreadSanitizer"
  cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPH_WERROR=ON -DZEPH_TSAN=ON -DZEPH_BUILD_BENCH=OFF "${LAUNCHER[@]}" >/dev/null
  cmake --build build/tsan -j"$JOBS"
  stage "concurrent tests under TSan: $PATTERN"
  (cd build/tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest -j"$CTEST_JOBS" -R "$PATTERN" --output-on-failure --timeout 300)
fi

if ls fuzz/fuzz_*.cpp >/dev/null 2>&1; then
  stage "fuzz targets, ${FUZZ_SECONDS}s each"
  CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPH_BUILD_FUZZ=ON \
    -DZEPH_BUILD_BENCH=OFF "${LAUNCHER[@]}" >/dev/null
  for src in fuzz/fuzz_*.cpp; do
    name=$(basename "$src" .cpp)
    cmake --build build/fuzz -j"$JOBS" --target "$name" >/dev/null
    mkdir -p "build/fuzz/corpus/$name"
    (cd build/fuzz && "./fuzz/$name" -max_total_time="$FUZZ_SECONDS" -print_final_stats=0 \
      "corpus/$name" "../../fuzz/corpus/$name" 2>&1 | tail -n 2)
  done
fi

stage "all stages passed"
