#!/usr/bin/env bash
# Installs what building Vorn needs on a Debian machine, only when missing:
#   scripts/install-deps.sh           compilers, the test and benchmark libraries, what the
#                                     install check needs, and the aarch64 cross compiler and
#                                     emulator the tests also run under
#   scripts/install-deps.sh --tools   compilers only (enough for the library and the tools)
set -euo pipefail

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v make >/dev/null || need+=(make)
if [ "${1:-}" != "--tools" ]; then
  [ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
  [ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
  # The 64-bit Arm build of the tests: cross compiler, emulator, GoogleTest's sources.
  command -v aarch64-linux-gnu-g++ >/dev/null || need+=(g++-aarch64-linux-gnu)
  command -v qemu-aarch64 >/dev/null || command -v qemu-aarch64-static >/dev/null || need+=(qemu-user)
  # The 32-bit build: the compiler's i386 C and C++ runtimes, the i386 kernel
  # headers and GoogleTest's sources (built for i386 by scripts/test.sh). Not
  # the g++-multilib package: it conflicts with the aarch64 cross compiler
  # above, so a fresh machine could not take both; the runtimes alone can.
  gcc_major=$(g++ -dumpversion 2>/dev/null | cut -d. -f1)
  echo 'int main() { return 0; }' | g++ -m32 -x c++ - -o /dev/null 2>/dev/null ||
    need+=(libc6-dev-i386 "lib32gcc-${gcc_major:-12}-dev" "lib32stdc++-${gcc_major:-12}-dev")
  [ -f /usr/i686-linux-gnu/include/asm/errno.h ] || need+=(linux-libc-dev-i386-cross)
  [ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
  # scripts/check_install.sh builds against vorn.pc; the Debian package reads
  # its dependencies with dpkg-shlibdeps.
  command -v pkg-config >/dev/null || need+=(pkg-config)
  command -v dpkg-shlibdeps >/dev/null || need+=(dpkg-dev)
  # The Python module and its tests, built against the distribution's
  # interpreter; pip and setuptools for `pip install --no-build-isolation .`;
  # Dask distributed for the cluster batch and its test. (PyTorch, which
  # retrains the speech presence, is a development tool: not installed here.)
  [ -f /usr/include/pybind11/pybind11.h ] || need+=(pybind11-dev)
  [ -x /usr/bin/python3-config ] || need+=(python3-dev)
  for module in numpy:python3-numpy pytest:python3-pytest pybind11:python3-pybind11 pip:python3-pip \
                setuptools:python3-setuptools distributed:python3-distributed; do
    /usr/bin/python3 -c "import ${module%%:*}" 2>/dev/null || need+=("${module#*:}")
  done
fi

if [ ${#need[@]} -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  echo "Installing: ${need[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${need[@]}"
fi
