#!/usr/bin/env bash
# Instructions per call of each four-lane kernel and of its plain twin: NEON
# on arm64 under qemu-user, SSE2 on the build machine under callgrind. Under
# emulation a time says nothing about a device, an instruction count does
# (about the work, not the cycles: a vector divide or square root is one
# instruction that costs several).
#
#   bench/kernel_counts.sh [ARM64_BUILD [X86_BUILD]]
#
# ARM64_BUILD is a cross build (cmake/aarch64-linux-gnu.cmake, default
# build/arm64), X86_BUILD an optimised native one (default build/release); the
# script builds vorn_kernel_counts in each. Either is skipped when it is not
# configured. Prints a Markdown table.
#
# The counters are bench/instruction_counter.sh's. The transforms' counts
# have the input copy they start with subtracted (the driver's copy_* rows).
set -euo pipefail
cd "$(dirname "$0")/.."

arm64=${1:-build/arm64}
x86=${2:-build/release}
calls=8

driver=vorn_kernel_counts
toggle='*CountedCalls*'
per=$calls
# shellcheck source=bench/instruction_counter.sh
source bench/instruction_counter.sh

lister=$([ $have_arm64 = 1 ] && echo "qemu-aarch64 -L /usr/aarch64-linux-gnu $arm64/bench/counts/$driver" ||
  echo "$x86/bench/counts/$driver")
$lister list >"$work/kernels"

declare -A count
while IFS=$'\t' read -r name _; do
  for variant in plain vector; do
    [ $have_arm64 = 0 ] || count[arm64,$name,$variant]=$(count_arm64 "$name" "$variant" $calls)
    [ $have_x86 = 0 ] || count[x86,$name,$variant]=$(count_x86 "$name" "$variant" $calls)
  done
done <"$work/kernels"

# Count of one kernel, less its input copy.
net() {
  local target=$1 name=$2 variant=$3 copy=
  case $name in
    fft_512 | ifft_512) copy=copy_512 ;;
    fft_512_x4 | ifft_512_x4) copy=copy_512_x4 ;;
    aec_*) copy=copy_128 ;;
  esac
  local n=${count[$target,$name,$variant]}
  [ -z "$copy" ] || n=$(awk -v a="$n" -v b="${count[$target,$copy,$variant]}" 'BEGIN { printf "%.1f", a - b }')
  echo "$n"
}
ratio() { awk -v p="$1" -v v="$2" 'BEGIN { printf "%.2f", v / p }'; }

echo "| kernel (one call) | arm64 plain | NEON | NEON / plain | x86-64 plain | SSE2 | SSE2 / plain |"
echo "|---|---:|---:|---:|---:|---:|---:|"
while IFS=$'\t' read -r name what; do
  case $name in copy_*) continue ;; esac
  row="| $what |"
  for target in arm64 x86; do
    have=have_$target
    if [ "${!have}" = 0 ]; then
      row+=" | | |"
      continue
    fi
    p=$(net $target "$name" plain)
    v=$(net $target "$name" vector)
    row+=" $(printf '%.0f' "$p") | $(printf '%.0f' "$v") | $(ratio "$p" "$v") |"
  done
  echo "$row"
done <"$work/kernels"
