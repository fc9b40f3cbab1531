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
# arm64: qemu-aarch64 -singlestep makes every translated block one
# instruction, and -d nochain,exec logs every block it executes, so the lines
# between the driver's markers vorn_count_begin and vorn_count_end are the
# instructions of the counted calls. x86-64: callgrind's instruction count of
# the driver's loop (--toggle-collect). The transforms' counts have the input
# copy they start with subtracted (the driver's copy_* rows).
set -euo pipefail
cd "$(dirname "$0")/.."

arm64=${1:-build/arm64}
x86=${2:-build/release}
calls=8

have_arm64=0
if [ -f "$arm64/CMakeCache.txt" ] && command -v qemu-aarch64 >/dev/null; then
  cmake --build "$arm64" --target vorn_kernel_counts -j"$(nproc)" >/dev/null
  have_arm64=1
fi
have_x86=0
if [ -f "$x86/CMakeCache.txt" ] && command -v valgrind >/dev/null; then
  cmake --build "$x86" --target vorn_kernel_counts -j"$(nproc)" >/dev/null
  have_x86=1
fi
[ $have_arm64 = 1 ] || [ $have_x86 = 1 ] || { echo "bench/kernel_counts.sh: no build to count in" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Instructions of $calls calls, divided by $calls (one decimal).
count_arm64() {
  qemu-aarch64 -L /usr/aarch64-linux-gnu -singlestep -d nochain,exec -D /dev/stderr \
    "$arm64/bench/counts/vorn_kernel_counts" "$1" "$2" $calls 2>&1 >/dev/null |
    awk -v calls=$calls 'on && / vorn_count_end$/ { printf "%.1f\n", n / calls; on = 0; done = 1 }
                         on { n++ }
                         !done && / vorn_count_begin$/ { on = 1 }'
}
count_x86() {
  valgrind --tool=callgrind --callgrind-out-file="$work/cg" --toggle-collect='*CountedCalls*' \
    "$x86/bench/counts/vorn_kernel_counts" "$1" "$2" $calls >/dev/null 2>&1
  awk -v calls=$calls '/^(summary|totals):/ { printf "%.1f\n", $2 / calls; exit }' "$work/cg"
}

driver=$([ $have_arm64 = 1 ] && echo "qemu-aarch64 -L /usr/aarch64-linux-gnu $arm64/bench/counts/vorn_kernel_counts" ||
  echo "$x86/bench/counts/vorn_kernel_counts")
$driver list >"$work/kernels"

declare -A count
while IFS=$'\t' read -r name _; do
  for variant in plain vector; do
    [ $have_arm64 = 0 ] || count[arm64,$name,$variant]=$(count_arm64 "$name" "$variant")
    [ $have_x86 = 0 ] || count[x86,$name,$variant]=$(count_x86 "$name" "$variant")
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
