#!/usr/bin/env bash
# Builds Vorn in five configurations and runs their tests:
#   build/release  optimised, warnings are errors: everything, all tests
#                  (the Python module's pytest suite among them)
#   build/arm64    the same for 64-bit Arm, cross-compiled, all tests under
#                  qemu-user (see below)
#   build/tsan     ThreadSanitizer: the library and the threads test only
#   build/m32      32-bit (i386, SSE2 arithmetic): the library, tools and
#                  tests, no benchmarks
#   build/asan     AddressSanitizer + UndefinedBehaviorSanitizer: all tests
# checks what a user installs (scripts/check_install.sh, from the release
# build), checks that the optimised and sanitizer builds give the same bytes
# and fuzzes every target briefly (a longer run: scripts/fuzz.sh). The
# sanitizer build's tests run last, so their summary closes the output.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVORN_WERROR=ON
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure -j"$jobs"
# What a user installs, from the same tree: the prefix, the example consumer
# built against it, the Debian package.
scripts/check_install.sh build/release

# The library and the whole test suite again for 64-bit Arm: cross-compiled,
# run under qemu-user (no benchmarks: a figure under emulation says nothing;
# the Python module and the install check are the native build's). Emulation
# is about twenty times slower, so CTest tells the tests (VORN_TEST_EMULATED)
# and the two longest sweeps, the talker's directions and the talkers behind
# the canceller's lead, run a subset of their cases there. The 207 tests take
# about 15 CPU minutes under emulation (the 170 that ran before the scene
# checks joined them, 6), so about 8 minutes on two idle cores.
cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
  -DVORN_WERROR=ON -DVORN_BUILD_BENCH=OFF
cmake --build build/arm64 -j"$jobs"
QEMU_LD_PREFIX=/usr/aarch64-linux-gnu ctest --test-dir build/arm64 --output-on-failure -j"$jobs"

# Instances share nothing: one thread re-initialises an instance while
# another processes, and ThreadSanitizer must find no shared state.
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DVORN_SANITIZE_THREAD=ON -DVORN_BUILD_BENCH=OFF
cmake --build build/tsan --target test_vorn_threads -j"$jobs"
TSAN_OPTIONS=halt_on_error=1 build/tsan/tests/test_vorn_threads

# 32-bit: GoogleTest is built for i386 from Debian's sources once; the
# kernel's asm headers for i386 come from the cross package, searched last.
# SSE2 arithmetic, as on x86-64, gives the same bytes (the golden test holds).
flags32="-m32 -msse2 -mfpmath=sse -idirafter /usr/i686-linux-gnu/include"
if [ ! -f build/gtest32/install/lib/libgtest.a ]; then
  cmake -S /usr/src/googletest -B build/gtest32/build -DCMAKE_BUILD_TYPE=Release -DBUILD_GMOCK=OFF \
    -DCMAKE_C_FLAGS="$flags32" -DCMAKE_CXX_FLAGS="$flags32" -DCMAKE_INSTALL_PREFIX="$PWD/build/gtest32/install"
  cmake --build build/gtest32/build -j"$jobs"
  cmake --install build/gtest32/build >/dev/null
fi
cmake -S . -B build/m32 -DCMAKE_BUILD_TYPE=Release -DVORN_WERROR=ON -DVORN_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS="$flags32" -DCMAKE_CXX_FLAGS="$flags32" -DCMAKE_PREFIX_PATH="$PWD/build/gtest32/install" \
  -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
cmake --build build/m32 -j"$jobs"
ctest --test-dir build/m32 --output-on-failure -j"$jobs"

cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DVORN_SANITIZE=ON -DVORN_BUILD_BENCH=OFF
cmake --build build/asan -j"$jobs"

# The two builds must agree byte for byte on the tools' output.
scripts/check_determinism.sh build/release build/asan

FUZZ_BUILD_JOBS="$jobs" scripts/fuzz.sh 10

ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan --output-on-failure -j"$jobs"
