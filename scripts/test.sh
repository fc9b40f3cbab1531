#!/usr/bin/env bash
# Builds Vorn three times and runs every test in each build:
#   build/release  optimised, warnings are errors
#   build/arm64    the same for 64-bit Arm, cross-compiled, tests under qemu-user
#   build/asan     AddressSanitizer + UndefinedBehaviorSanitizer
# then checks that the optimised and sanitizer builds give the same bytes and
# fuzzes every target briefly (a longer run: scripts/fuzz.sh). The sanitizer
# build's tests run last, so their summary closes the output.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVORN_WERROR=ON
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure -j"$jobs"

# The library and every test again for 64-bit Arm: cross-compiled and run
# under qemu-user (no benchmarks: a figure under emulation says nothing).
cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
  -DVORN_WERROR=ON -DVORN_BUILD_BENCH=OFF
cmake --build build/arm64 -j"$jobs"
QEMU_LD_PREFIX=/usr/aarch64-linux-gnu ctest --test-dir build/arm64 --output-on-failure -j"$jobs"

cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DVORN_SANITIZE=ON -DVORN_BUILD_BENCH=OFF
cmake --build build/asan -j"$jobs"

# The two builds must agree byte for byte on the tools' output.
scripts/check_determinism.sh build/release build/asan

FUZZ_BUILD_JOBS="$jobs" scripts/fuzz.sh 10

ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan --output-on-failure -j"$jobs"
