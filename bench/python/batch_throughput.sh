#!/usr/bin/env bash
# Files per second and times real time of a batch: `vorn batch` with -j 1
# and -j 2, and the Dask run with 1 and 2 local workers, over the same
# synthetic corpus. Usage: bench/python/batch_throughput.sh BUILD_DIR [FILES] [SECONDS_EACH]
set -euo pipefail
build=$(cd "$1" && pwd)
files=${2:-40}
seconds=${3:-10}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
here=$(cd "$(dirname "$0")/../../tests/python" && pwd)
export PYTHONPATH="$build/python:$here"
/usr/bin/python3 - "$work" "$files" "$seconds" <<'PY'
import sys
import numpy as np
import vorn
from conftest import make_capture
work, files, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
with open(f"{work}/m.csv", "w") as m:
    for i in range(files):
        mics, ref = make_capture(seconds, 9.0 * i, seed=i)
        vorn.write_wav(f"{work}/in{i}.wav", np.column_stack([mics, ref]))
        m.write(f"in{i}.wav,out/o{i}.wav\n")
PY
audio=$(awk "BEGIN { print $files * $seconds }")
report() {
  awk -v name="$1" -v wall="$2" -v files="$files" -v audio="$audio" \
    'BEGIN { printf "%-22s %6.2f s  %5.1f files/s  %5.0fx real time\n", name, wall, files / wall, audio / wall }'
}
timed() { local t0 t1; t0=$(date +%s.%N); "$@" >/dev/null 2>&1; t1=$(date +%s.%N); awk "BEGIN { print $t1 - $t0 }"; }
echo "$files files of $seconds s ($audio s of audio), $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg)"
for j in 1 2; do
  rm -rf "$work/out"
  report "vorn batch -j $j" "$(timed "$build/tools/vorn/vorn" batch "$work/m.csv" -j "$j")"
done
for w in 1 2; do
  rm -rf "$work/out"
  report "Dask, $w local workers" "$(timed /usr/bin/python3 -m vorn.batch "$work/m.csv" --workers "$w")"
done
