#!/usr/bin/env bash
# Builds the vorn tool (installing the build tools on a fresh Debian machine
# when missing) and runs its built-in demo: a simulated talker in a
# reverberant room with noise and loudspeaker echo, processed with the echo
# canceller fed the reference, scored against the truth.
#   scripts/demo.sh [DIR]   (default DIR: vorn-demo)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build/demo" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/build/demo" --target vorn_cli -j"$(nproc)" >/dev/null
exec "$root/build/release/tools/vorn/vorn" demo "${1:-vorn-demo}"
