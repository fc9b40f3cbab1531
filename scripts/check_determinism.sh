#!/usr/bin/env bash
# Same input, same bytes: runs the command-line tools of two build trees (by
# default the optimised and the sanitizer builds of scripts/test.sh) twice
# each over one rendered scene and requires every output file and every
# printed result to be identical across all runs.
#
#   scripts/check_determinism.sh [BUILD_A [BUILD_B]]   (default build/release build/asan)
#
# The scene comes from BUILD_A's vorn_make_scene. The `vorn` tool is checked
# too when both trees have it.
set -euo pipefail
cd "$(dirname "$0")/.."
build_a=${1:-build/release}
build_b=${2:-build/asan}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

work=$(mktemp -d "${TMPDIR:-/tmp}/vorn_determinism.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$build_a/bench/scene/vorn_make_scene" "$work/scene" --seed 11 --duration 4 --talk 0.5,4 --far 0,2.5 \
  --noise diffuse:pink=15 --noise interferer:speech=10 >/dev/null

legacy=tools/test_vorn_3mic_stdin_stdout/test_vorn_3mic_stdin_stdout
# "agc bf doa aec ns azimuth vad_mode": the heaviest set, every beam type
# once, the canceller's outputs, both direction searches.
switch_sets=(
  "1 4 1 3 2 60 1" "2 0 0 0 1 0 2" "1 1 2 1 1 30 2" "2 2 3 2 2 0 1"
  "0 3 1 0 0 300 2" "1 5 0 3 1 90 1" "2 6 1 1 2 180 2" "1 7 2 2 0 270 1"
)

failures=0
compare() {  # compare REFERENCE OTHER WHAT
  if ! cmp -s "$1" "$2"; then
    echo "DIFFERENT: $3 ($1 vs $2)"
    failures=$((failures + 1))
  fi
}

run_legacy() {  # run_legacy BUILD TAG SET_INDEX
  local dir="$work/$2/legacy$3"
  mkdir -p "$dir"
  # shellcheck disable=SC2086
  local status=0
  "$1/$legacy" "$work/scene/mics.wav" "$dir/out.wav" ${switch_sets[$3]} 1 none.conf \
    >"$dir/printed.txt" 2>"$dir/messages.txt" || status=$?
  echo "$status" >"$dir/status"
}

run_vorn() {  # run_vorn BUILD TAG
  local dir="$work/$2/vorn"
  mkdir -p "$dir"
  local status=0
  "$1/tools/vorn/vorn" process "$work/scene/mics.wav" --ref="$work/scene/reference.wav" -o "$dir/out.wav" \
    --agc=1 --bf=4 --doa=1 --aec=3 --ns=2 --azimuth=60 --vad="$dir/vad.csv" --track="$dir/track.csv" \
    >"$dir/printed.txt" 2>"$dir/messages.txt" || status=$?
  echo "$status" >"$dir/status"
}

have_vorn=0
[[ -x "$build_a/tools/vorn/vorn" && -x "$build_b/tools/vorn/vorn" ]] && have_vorn=1

runs=(a1 a2 b1 b2)
for tag in "${runs[@]}"; do
  build=$build_a
  [[ $tag == b* ]] && build=$build_b
  for i in "${!switch_sets[@]}"; do run_legacy "$build" "$tag" "$i"; done
  if ((have_vorn)); then run_vorn "$build" "$tag"; fi
done

for i in "${!switch_sets[@]}"; do
  if [[ $(cat "$work/a1/legacy$i/status") != 0 ]]; then
    echo "FAILED: legacy tool, switches ${switch_sets[$i]}: $(cat "$work/a1/legacy$i/messages.txt")"
    failures=$((failures + 1))
  fi
done
if ((have_vorn)) && [[ $(cat "$work/a1/vorn/status") != 0 ]]; then
  echo "FAILED: vorn: $(cat "$work/a1/vorn/messages.txt")"
  failures=$((failures + 1))
fi

for tag in a2 b1 b2; do
  for i in "${!switch_sets[@]}"; do
    for f in out.wav out_VornVad.txt printed.txt messages.txt status; do
      compare "$work/a1/legacy$i/$f" "$work/$tag/legacy$i/$f" "legacy tool, switches ${switch_sets[$i]}, $f, run $tag"
    done
  done
  if ((have_vorn)); then
    for f in out.wav vad.csv track.csv status; do compare "$work/a1/vorn/$f" "$work/$tag/vorn/$f" "vorn, $f, run $tag"; done
  fi
done

checked=$(( ${#switch_sets[@]} + have_vorn ))
if ((failures)); then
  echo "determinism: $failures difference(s) over $checked configuration(s)"
  exit 1
fi
echo "determinism: $checked configuration(s) identical across 2 runs of $build_a and $build_b"
((have_vorn)) || echo "determinism: the vorn tool is not in both trees; only the legacy tool was checked"
