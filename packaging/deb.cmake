# `cpack -G DEB` in a build tree (or `cmake --build DIR --target package`)
# makes one Debian package, vorn_<version>_<arch>.deb, of everything
# packaging/install.cmake installs, under /usr: the libraries and the package
# files in /usr/lib/<triplet>, the headers in /usr/include, the tools in
# /usr/bin.
set(CPACK_PACKAGE_NAME vorn)
set(CPACK_PACKAGE_VENDOR "Vorn developers")
set(CPACK_PACKAGE_CONTACT "Vorn developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "speech front end for a three-microphone array and a loudspeaker")
set(CPACK_PACKAGE_DESCRIPTION "Beamforming with direction finding, echo cancellation, noise suppression,
voice activity detection and gain control for a three-microphone circular
array and a loudspeaker, as a C-callable library (static and shared, with
its headers, CMake package and pkg-config file) and the command-line tools
vorn and test_vorn_3mic_stdin_stdout.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
# The dependencies (libc6, libstdc++6, ...) are read from the binaries when
# the Debian tools for it are there.
find_program(VORN_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(VORN_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_GENERATOR DEB)
include(CPack)
