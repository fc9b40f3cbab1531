#!/usr/bin/env bash
# Runs the command-line tools of one build tree under valgrind's memcheck on
# a short rendered scene: no invalid access, no use of uninitialised values
# and no leak is allowed.
#
#   scripts/valgrind_tools.sh [BUILD]   (default build/release; a sanitizer build cannot run under valgrind)
#
# The `vorn` tool is checked too when the tree has it.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
command -v valgrind >/dev/null || { echo "valgrind is not installed"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/vorn_valgrind.XXXXXX")
trap 'rm -rf "$work"' EXIT
"$build/bench/scene/vorn_make_scene" "$work/scene" --seed 5 --duration 1.5 --talk 0.2,1.5 --far 0,1 \
  --noise diffuse:pink=15 >/dev/null

memcheck=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect
  --errors-for-leak-kinds=definite,indirect --track-origins=yes --trace-children=yes --quiet)
failures=0
check() {  # check NAME COMMAND...
  local name=$1
  shift
  local status=0
  "${memcheck[@]}" --log-file="$work/$name.log" "$@" >"$work/$name.out" 2>"$work/$name.err" || status=$?
  if ((status != 0)) || [[ -s $work/$name.log ]]; then
    echo "memcheck: $name: exit $status"
    cat "$work/$name.log" "$work/$name.err"
    failures=$((failures + 1))
  else
    echo "memcheck: $name: clean"
  fi
}

check_refused() {  # check_refused NAME COMMAND...: the tool must fail, cleanly
  local name=$1
  shift
  if "${memcheck[@]}" --log-file="$work/$name.log" "$@" >/dev/null 2>&1; then
    echo "memcheck: $name: the tool accepted a bad input"
    failures=$((failures + 1))
  elif [[ -s $work/$name.log ]]; then
    echo "memcheck: $name:"
    cat "$work/$name.log"
    failures=$((failures + 1))
  else
    echo "memcheck: $name: clean"
  fi
}

legacy=$build/tools/test_vorn_3mic_stdin_stdout/test_vorn_3mic_stdin_stdout
in=$work/scene/mics.wav
# The heaviest switch set with the speech-flag file and per-hop direction
# finding; the default mode; the utterance search on raw input through the
# standard streams; a list of two pairs; a refused input (and, for `vorn`, a
# cut recording).
tail -c +45 "$in" >"$work/mics.pcm"
printf '%s %s\n%s %s\n' "$work/mics.pcm" "$work/l1.pcm" "$work/mics.pcm" "$work/l2.pcm" >"$work/list.txt"
check legacy-heaviest "$legacy" "$in" "$work/heavy.wav" 1 4 1 3 2 60 1 1 none.conf
check legacy-default "$legacy" "$in" "$work/default.wav" 1 0 0 0 1 0 1 0 none.conf
check legacy-doa-search "$legacy" "$in" "$work/search.pcm" 2 1 2 1 1 30 2 0 none.conf
check legacy-streams sh -c "\"$legacy\" stdin.pcm stdout.pcm 1 5 0 2 2 90 2 0 none.conf <\"$work/mics.pcm\" >\"$work/streams.pcm\""
check legacy-list "$legacy" "$work/list.txt" unused 2 2 0 0 1 0 2 0 none.conf
check_refused legacy-refused "$legacy" "$work/scene/truth.json" x.wav 1 0 0 0 1 0 1 0 none.conf

if [[ -x $build/tools/vorn/vorn ]]; then
  vorn=$build/tools/vorn/vorn
  check vorn-heaviest "$vorn" process "$in" --ref="$work/scene/reference.wav" -o "$work/vorn.wav" --agc=1 --bf=4 \
    --doa=1 --aec=3 --ns=2 --azimuth=60 --vad="$work/vad.csv" --track="$work/track.csv" --json
  check vorn-default "$vorn" process "$in" -o "$work/vorn_default.wav"
  head -c 30044 "$in" >"$work/cut.wav"
  check_refused vorn-refused "$vorn" process "$work/cut.wav" -o "$work/vorn_cut.wav"
else
  echo "memcheck: the vorn tool is not in $build; skipped"
fi

((failures == 0)) || { echo "memcheck: $failures run(s) with errors"; exit 1; }
