#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz/ (clang, ASan + UBSan) and runs
# each for a fixed time:
#   scripts/fuzz.sh [SECONDS] [TARGET...]
# SECONDS defaults to 600; `scripts/fuzz.sh 10` is the short CI run. TARGET
# names (conf_read, wav_header, ...) pick targets; by default all run, one
# after the other. Each target starts from its checked-in seeds
# (fuzz/corpus/<target>/) and kept findings (fuzz/regressions/<target>/) and
# grows a working corpus in build-fuzz/corpus/<target>/, which later runs
# reuse. A crash, a sanitizer report or a broken invariant stops that target,
# leaves the input in build-fuzz/findings/<target>/ and fails the script;
# keep such an input under fuzz/regressions/<target>/ once it is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
shift || true

need=()
command -v clang++ >/dev/null || need+=(clang)
command -v cmake >/dev/null || need+=(cmake)
command -v make >/dev/null || need+=(make)
# libFuzzer and the sanitizer runtimes ship with clang's runtime package.
probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' \
  > "$probe_dir/probe.cpp"
if ! command -v clang++ >/dev/null ||
   ! clang++ -fsanitize=fuzzer,address,undefined "$probe_dir/probe.cpp" -o "$probe_dir/probe" 2>/dev/null; then
  need+=(libclang-rt-dev)
fi
if [ ${#need[@]} -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  echo "Installing: ${need[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${need[@]}"
fi

cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVORN_FUZZ=ON \
  -DVORN_BUILD_TESTS=OFF -DVORN_BUILD_BENCH=OFF >/dev/null

if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for source in fuzz/fuzz_*.cpp; do
    name=$(basename "$source" .cpp)
    targets+=("${name#fuzz_}")
  done
fi
build_targets=()
for target in "${targets[@]}"; do build_targets+=("fuzz_$target"); done
cmake --build build-fuzz -j"${FUZZ_BUILD_JOBS:-2}" --target "${build_targets[@]}"

failed=()
for target in "${targets[@]}"; do
  corpus=build-fuzz/corpus/$target
  findings=build-fuzz/findings/$target
  mkdir -p "$corpus" "$findings" fuzz/regressions/"$target"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="$findings/" -close_fd_mask=2)
  [ -f fuzz/"$target".dict ] && options+=(-dict=fuzz/"$target".dict)
  echo "== fuzz_$target for ${seconds}s"
  if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
       build-fuzz/fuzz/fuzz_"$target" "${options[@]}" \
       "$corpus" fuzz/corpus/"$target" fuzz/regressions/"$target"; then
    failed+=("$target")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found faults in: ${failed[*]} (inputs in build-fuzz/findings/)" >&2
  exit 1
fi
echo "fuzzing: ${#targets[@]} targets ran ${seconds}s each without a finding"
