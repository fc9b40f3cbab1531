# Cross build for 64-bit Arm Linux with Debian's aarch64 cross compiler
# (g++-aarch64-linux-gnu). Programs of the build run under qemu-user, so the
# tests and their discovery work as on the build machine; the table generator
# is built for the build machine (tools/gen_tables).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reports the device's packages only (none of the build machine's).
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig)

# qemu-user finds the target's loader and libraries under -L.
find_program(VORN_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(VORN_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VORN_QEMU_AARCH64} -L /usr/aarch64-linux-gnu)
endif()
