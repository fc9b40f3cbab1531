#!/usr/bin/env bash
# Instructions per hop of per-frame direction finding, the classic doa_flag 1
# work against the enhanced tracker's (on a hop whose onsets the speech
# presence vouches for, and on one it does not): arm64 under qemu-user,
# x86-64 on the build machine under callgrind, counted as
# bench/kernel_counts.sh counts its kernels (bench/instruction_counter.sh).
# Both sides include the hop's three 512-point transforms and the copy of its
# input into the analysis buffers.
#
#   bench/doa_hop_counts.sh [ARM64_BUILD [X86_BUILD]]
#
# ARM64_BUILD is a cross build (cmake/aarch64-linux-gnu.cmake, default
# build/arm64), X86_BUILD an optimised native one (default build/release); the
# script builds vorn_doa_hop_counts in each. Either is skipped when it is not
# configured. Prints a Markdown table.
set -euo pipefail
cd "$(dirname "$0")/.."

arm64=${1:-build/arm64}
x86=${2:-build/release}
hops=50

driver=vorn_doa_hop_counts
toggle='*Counted*Hops*'
per=$hops
# shellcheck source=bench/instruction_counter.sh
source bench/instruction_counter.sh

echo "| instructions per hop | classic | enhanced, evidence | enhanced, pause |"
echo "|---|---:|---:|---:|"
for target in arm64 x86; do
  have=have_$target
  [ "${!have}" = 1 ] || continue
  row="| $([ $target = arm64 ] && echo arm64 || echo x86-64) |"
  for which in classic evidence pause; do row+=" $(printf '%.0f' "$(count_$target $which $hops)") |"; done
  echo "$row"
done
