#!/usr/bin/env bash
# Checks what a user of the library gets from a built tree:
#   scripts/check_install.sh [BUILD_DIR]     (default build/release)
# - `cmake --install` into a scratch prefix lays out the headers, both
#   libraries, the CMake package, vorn.pc and the tools;
# - the shared library has a versioned soname and exports exactly the
#   functions the installed headers declare, and each header compiles alone as
#   C89, C99, C11 and C++11 with every warning an error;
# - examples/wav_enhance builds against the prefix with find_package(Vorn) and
#   with pkg-config, each static and shared, and writes the same file as
#   `vorn process` from the demo's capture, in both profiles;
# - `cpack -G DEB` makes a package that unpacks (dpkg -x) into /usr with the
#   libraries in Debian's multiarch directory, whose vorn prints the version and
#   whose pkg-config file builds the example.
# Needs pkg-config, and the static C and C++ runtimes for the fully static
# pkg-config build (libc6-dev, libstdc++-dev).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build/release}" && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

fail() {
  echo "check_install: $*" >&2
  exit 1
}
cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }

version="$(cache_value CMAKE_PROJECT_VERSION)"
libdir="$(cache_value CMAKE_INSTALL_LIBDIR)"
# Before 1.0 the soname carries major.minor, from 1.0 on the major version.
if [ "${version%%.*}" = 0 ]; then soversion="${version%.*}"; else soversion="${version%%.*}"; fi
cmake --build "$build" --target vorn vorn_shared vorn_cli test_vorn_3mic_stdin_stdout -j"$(nproc)" >/dev/null

# The files a prefix must hold; $1 is the prefix, $2 its library directory.
check_layout() {
  local prefix=$1 lib=$2 file headers
  for file in bin/vorn bin/test_vorn_3mic_stdin_stdout "$lib/libvorn.a" "$lib/libvorn.so.$version" \
      "$lib/cmake/Vorn/VornConfig.cmake" "$lib/cmake/Vorn/VornConfigVersion.cmake" \
      "$lib/cmake/Vorn/VornTargets.cmake" "$lib/pkgconfig/vorn.pc"; do
    [ -f "$prefix/$file" ] || fail "$prefix: $file is missing"
  done
  [ "$(readlink "$prefix/$lib/libvorn.so")" = "libvorn.so.$soversion" ] ||
    fail "$prefix/$lib/libvorn.so does not point at libvorn.so.$soversion"
  [ "$(readlink "$prefix/$lib/libvorn.so.$soversion")" = "libvorn.so.$version" ] ||
    fail "$prefix/$lib/libvorn.so.$soversion does not point at libvorn.so.$version"
  # Every header in include/ is public, and only those are installed.
  headers="$(cd "$root/include" && ls ./*.h)"
  [ "$(cd "$prefix/include" && ls ./*.h)" = "$headers" ] ||
    fail "$prefix/include holds $(cd "$prefix/include" && ls) instead of the headers in include/"
}

# wav_enhance from the demo's capture must give the bytes vorn process gives,
# with the same configuration, mode and profile. $1 is the program.
capture="$scratch/capture/input.wav"
config="$root/examples/wav_enhance/vorn.conf"
check_output() {
  local program=$1 profile
  for profile in enhanced classic; do
    "$program" --config "$config" --profile "$profile" "$capture" "$scratch/example.wav" ||
      fail "$program failed on $capture"
    cmp -s "$scratch/example.wav" "$scratch/vorn_$profile.wav" ||
      fail "$program --profile $profile wrote other bytes than vorn process"
  done
}

# --- cmake --install ---
prefix="$scratch/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
check_layout "$prefix" "$libdir"
shared="$prefix/$libdir/libvorn.so.$version"
readelf -d "$shared" | grep -q "Library soname: \[libvorn.so.$soversion\]" ||
  fail "$shared does not carry the soname libvorn.so.$soversion"

# --- the public interface ---
# The compiler lists what the installed headers declare; the shared library
# must export those functions and nothing else.
includes=""
for header in "$prefix"/include/*.h; do includes+="#include <$(basename "$header")>"$'\n'; done
# (A header of macros alone would leave an empty translation unit, which ISO C refuses.)
printf '%stypedef int vorn_header_check;\n' "$includes" > "$scratch/headers.c"
gcc -std=c99 -fsyntax-only -aux-info "$scratch/declared.txt" -I"$prefix/include" "$scratch/headers.c"
declared="$(grep -F "/* $prefix/include/" "$scratch/declared.txt" | sed -e 's|^/\*[^*]*\*/ ||' -e 's/ (.*//' -e 's/.*[ *]//' | sort)"
exported="$(nm -D --defined-only "$shared" | awk '{print $3}' | sort)"
[ -n "$declared" ] || fail "no function declarations found in $prefix/include"
[ "$exported" = "$declared" ] || fail "$shared exports
$exported
but the public headers declare
$declared"
nm -D --defined-only "$shared" | awk '$2 != "T" {bad = 1} END {exit bad}' ||
  fail "$shared exports something other than functions"
for header in "$prefix"/include/*.h; do
  for standard in c89 c99 c11 c++11; do
    language=c
    [ "$standard" = c++11 ] && language=c++
    printf '#include <%s>\ntypedef int vorn_header_check;\n' "$(basename "$header")" |
      gcc -x "$language" -std="$standard" -Wall -Wextra -pedantic-errors -Werror -fsyntax-only -I"$prefix/include" - ||
      fail "$(basename "$header") does not compile alone as $standard"
  done
done

# --- the example consumer ---
"$prefix/bin/vorn" demo "$scratch/capture" --seconds 4 >/dev/null
for profile in enhanced classic; do
  "$prefix/bin/vorn" process "$capture" -o "$scratch/vorn_$profile.wav" --config "$config" --profile "$profile"
done
warnings=(-Wall -Wextra -Wconversion -Wshadow -pedantic -Werror)
for kind in shared static; do
  static=OFF
  [ "$kind" = static ] && static=ON
  example="$scratch/cmake_$kind"
  cmake -S "$root/examples/wav_enhance" -B "$example" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
    -DVORN_USE_STATIC_LIBS=$static -DCMAKE_C_FLAGS="${warnings[*]}" >/dev/null
  cmake --build "$example" >/dev/null
  if readelf -d "$example/wav_enhance" | grep -q "NEEDED.*libvorn"; then linked=shared; else linked=static; fi
  [ "$linked" = "$kind" ] || fail "the CMake package linked wav_enhance $linked, not $kind"
  check_output "$example/wav_enhance"
done
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
[ "$(pkg-config --modversion vorn)" = "$version" ] || fail "vorn.pc gives version $(pkg-config --modversion vorn)"
# shellcheck disable=SC2046  # pkg-config's output is a list of words
gcc -std=c99 "${warnings[@]}" -o "$scratch/pkg_shared" "$root/examples/wav_enhance/wav_enhance.c" $(pkg-config --cflags --libs vorn)
readelf -d "$scratch/pkg_shared" | grep -q "NEEDED.*libvorn.so.$soversion" || fail "pkg-config did not link libvorn.so"
LD_LIBRARY_PATH="$prefix/$libdir" check_output "$scratch/pkg_shared"
# shellcheck disable=SC2046
gcc -static -std=c99 "${warnings[@]}" -o "$scratch/pkg_static" "$root/examples/wav_enhance/wav_enhance.c" \
  $(pkg-config --static --cflags --libs vorn)
check_output "$scratch/pkg_static"

# --- the Debian package ---
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/deb" >"$scratch/cpack.log" 2>&1 ||
  fail "cpack failed: $(cat "$scratch/cpack.log")"
debs=("$scratch"/deb/*.deb)
[ ${#debs[@]} -eq 1 ] || fail "cpack made ${#debs[@]} packages"
deb=${debs[0]}
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "$deb has version $(dpkg-deb -f "$deb" Version)"
[ "$(dpkg-deb -f "$deb" Architecture)" = "$(dpkg --print-architecture)" ] || fail "$deb is for another architecture"
deb_root="$scratch/root"
dpkg -x "$deb" "$deb_root"
[ "$(ls "$deb_root")" = usr ] || fail "$deb installs outside /usr: $(ls "$deb_root")"
multiarch_lib="lib/$(gcc -print-multiarch)"
check_layout "$deb_root/usr" "$multiarch_lib"
"$deb_root/usr/bin/vorn" --version | grep -qxF "vorn $version" || fail "vorn --version from $deb does not print $version"
# The package's vorn.pc finds its files wherever the package is unpacked.
export PKG_CONFIG_PATH="$deb_root/usr/$multiarch_lib/pkgconfig"
# shellcheck disable=SC2046
gcc -std=c99 "${warnings[@]}" -o "$scratch/deb_shared" "$root/examples/wav_enhance/wav_enhance.c" \
  $(pkg-config --cflags --libs vorn)
LD_LIBRARY_PATH="$deb_root/usr/$multiarch_lib" check_output "$scratch/deb_shared"

echo "check_install: the install, the example consumer (CMake and pkg-config, static and shared) and $(basename "$deb") are as expected"
