#!/usr/bin/env bash
# Builds Vorn twice and runs every test in both builds:
#   build/release  optimised, warnings are errors
#   build/asan     AddressSanitizer + UndefinedBehaviorSanitizer
# checks what a user installs (scripts/check_install.sh, from the release
# build), checks that both builds give the same bytes and fuzzes every target
# briefly (a longer run: scripts/fuzz.sh). The sanitizer build's tests run
# last, so their summary closes the output.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVORN_WERROR=ON
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure -j"$jobs"
# What a user installs, from the same tree: the prefix, the example consumer
# built against it, the Debian package.
scripts/check_install.sh build/release

cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DVORN_SANITIZE=ON -DVORN_BUILD_BENCH=OFF
cmake --build build/asan -j"$jobs"

# The two builds must agree byte for byte on the tools' output.
scripts/check_determinism.sh build/release build/asan

FUZZ_BUILD_JOBS="$jobs" scripts/fuzz.sh 10

ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan --output-on-failure -j"$jobs"
