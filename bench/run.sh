#!/usr/bin/env bash
# Regenerates the bench report: bench/report/report.md and its plots.
#
#   bench/run.sh
#
# Installs what the bench needs from Debian's packages when it is missing
# (SpeexDSP as the measured peer, gnuplot, Google Benchmark, the build tools),
# builds a Release tree in build-bench/, runs the quality runner and every
# speed benchmark (JSON output), draws the plots and writes the report.
# VORN_BENCH_JOBS sets the build's parallelism (default 2); VORN_BENCH_REPEAT=1
# runs the quality bench twice and fails unless both runs agree byte for byte.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build-bench"
data="$build/report-data"
report="$root/bench/report"
jobs=${VORN_BENCH_JOBS:-2}

missing=()
command -v cmake >/dev/null || missing+=(cmake)
command -v c++ >/dev/null || missing+=(g++)
command -v pkg-config >/dev/null || missing+=(pkg-config)
command -v gnuplot >/dev/null || missing+=(gnuplot-nox)
command -v python3 >/dev/null || missing+=(python3)
[ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
{ command -v pkg-config >/dev/null && pkg-config --exists speexdsp; } || missing+=(libspeexdsp-dev)
if ((${#missing[@]})); then
  echo "installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# The learned peers (RNNoise, Silero VAD) join the noise and speech-detection
# section only where node is installed; their packages come from the npm
# registry, installed without running their install scripts.
if command -v node >/dev/null && command -v npm >/dev/null; then
  mkdir -p "$build/node_peers"
  cp "$root/bench/peers/package.json" "$build/node_peers/"
  if (cd "$build/node_peers" && npm install --ignore-scripts --no-audit --no-fund >/dev/null 2>&1); then
    export VORN_NODE_PEERS="$build/node_peers/node_modules"
  else
    echo "could not install the learned peers; the report leaves them out"
  fi
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVORN_BUILD_TESTS=OFF -DVORN_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$jobs" >/dev/null
rm -rf "$data"
mkdir -p "$data" "$report"
pkg-config --modversion speexdsp >"$data/speexdsp_version.txt" 2>/dev/null || rm -f "$data/speexdsp_version.txt"

echo "quality: rendering and scoring the scenes"
"$build/bench/quality/vorn_bench_quality" "$data" >/dev/null 2>"$data/quality.log"
if [ "${VORN_BENCH_REPEAT:-0}" = 1 ]; then
  echo "quality: second run, which must write the same figures"
  "$build/bench/quality/vorn_bench_quality" "$data/repeat" >/dev/null 2>"$data/quality-repeat.log"
  for file in "$data"/repeat/*; do
    # Directories hold the peers' scratch files; *speed* files hold timings.
    [ -d "$file" ] && continue
    case $(basename "$file") in *speed*) continue ;; esac
    cmp -s "$file" "$data/$(basename "$file")" || { echo "quality figures differ between runs: $(basename "$file")"; exit 1; }
  done
  echo "quality: both runs agree"
fi

# The direction and echo sections are pages of their own, linked from the
# report (the echo page gets its cost line from the speed run below). The
# direction section also runs on its fresh draw of scenes, which the
# direction finder was never tuned on.
echo "quality: the direction section on its fresh draw"
"$build/bench/quality/vorn_bench_quality" "$data/fresh" --only direction --fresh 2>"$data/direction-fresh.log"
cp "$data/direction.md" "$report/direction.md"
cp "$data/fresh/direction_fresh.md" "$report/direction_fresh.md"
cp "$data/echo.md" "$report/echo.md"

echo "speed: Vorn against SpeexDSP"
if [ -x "$build/bench/bench_vs_speexdsp" ]; then
  "$build/bench/bench_vs_speexdsp" --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true --benchmark_min_time=0.1 \
    --benchmark_out="$data/speed_vs_speexdsp.json" --benchmark_out_format=json >/dev/null 2>"$data/speed_vs_speexdsp.log"
fi
for bench in "$build"/bench/bench_*; do
  name=$(basename "$bench")
  [ "$name" = bench_vs_speexdsp ] && continue
  echo "speed: $name"
  "$bench" --benchmark_min_time=0.1 --benchmark_out="$data/speed_$name.json" --benchmark_out_format=json \
    >/dev/null 2>"$data/speed_$name.log"
done

# The sections of single changes, each its own page beside the report.
cp "$data"/sections/*.md "$report"/ 2>/dev/null || true
gnuplot -e "data='$data'; out='$report'" "$root/bench/plots.gp"
cat "$data/noise_vad.md" "$data/noise_vad_speed.md" >"$report/noise_vad.md"
python3 "$root/bench/report.py" "$data" "$report/report.md"
echo "wrote $report/report.md"
