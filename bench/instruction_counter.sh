# The instruction counters bench/kernel_counts.sh and bench/doa_hop_counts.sh
# share; sourced by them, not run. Set before sourcing: arm64 and x86 (the
# build directories), driver (the counting driver's target, built in
# bench/counts/ and run from there), toggle (the driver's function whose
# instructions callgrind counts) and per (how many calls or hops one run of
# the driver counts: the counts are divided by it).
#
# arm64: qemu-aarch64 -singlestep makes every translated block one
# instruction, and -d nochain,exec logs every block it executes, so the lines
# between the driver's markers vorn_count_begin and vorn_count_end are the
# instructions of the counted calls. x86-64: callgrind's instruction count
# inside the driver's counted function (--toggle-collect). Either build is
# skipped when it is not configured or its counter is not installed.

have_arm64=0
if [ -f "$arm64/CMakeCache.txt" ] && command -v qemu-aarch64 >/dev/null; then
  cmake --build "$arm64" --target "$driver" -j"$(nproc)" >/dev/null
  have_arm64=1
fi
have_x86=0
if [ -f "$x86/CMakeCache.txt" ] && command -v valgrind >/dev/null; then
  cmake --build "$x86" --target "$driver" -j"$(nproc)" >/dev/null
  have_x86=1
fi
[ $have_arm64 = 1 ] || [ $have_x86 = 1 ] || { echo "$0: no build to count in" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Instructions of one run of the driver with these arguments, divided by
# $per (one decimal).
count_arm64() {
  qemu-aarch64 -L /usr/aarch64-linux-gnu -singlestep -d nochain,exec -D /dev/stderr \
    "$arm64/bench/counts/$driver" "$@" 2>&1 >/dev/null |
    awk -v per="$per" 'on && / vorn_count_end$/ { printf "%.1f\n", n / per; on = 0; done = 1 }
                       on { n++ }
                       !done && / vorn_count_begin$/ { on = 1 }'
}
count_x86() {
  valgrind --tool=callgrind --callgrind-out-file="$work/cg" --toggle-collect="$toggle" \
    "$x86/bench/counts/$driver" "$@" >/dev/null 2>&1
  awk -v per="$per" '/^(summary|totals):/ { printf "%.1f\n", $2 / per; exit }' "$work/cg"
}
