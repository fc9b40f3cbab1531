#!/usr/bin/env bash
# Builds the vorn tool (installing CMake and g++ on a fresh Debian machine
# when missing) and runs its built-in demo: a simulated talker in a
# reverberant room with noise and loudspeaker echo, processed with the echo
# canceller fed the reference, scored against the truth.
#   scripts/demo.sh [DIR]   (default DIR: vorn-demo)
# Only the tool and what it links are built, in build/demo, without the tests
# and benchmarks, so a first run needs neither their libraries nor their
# build time.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/demo"
"$root/scripts/install-deps.sh" --tools
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVORN_BUILD_TESTS=OFF -DVORN_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target vorn_cli -j"$(nproc)" >/dev/null
exec "$build/tools/vorn/vorn" demo "${1:-vorn-demo}"
