# What `cmake --install` puts under the prefix (and `cpack -G DEB` under /usr):
#   include/                             the public headers
#   lib/<triplet>/libvorn.a, libvorn.so  the static and the shared library
#   lib/<triplet>/cmake/Vorn/            CMake package: find_package(Vorn CONFIG), Vorn::vorn
#   lib/<triplet>/pkgconfig/vorn.pc      pkg-config
#   bin/                                 vorn, test_vorn_3mic_stdin_stdout
include(CMakePackageConfigHelpers)

set(VORN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Vorn)
set(VORN_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${VORN_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set_target_properties(vorn PROPERTIES EXPORT_NAME vorn_static)
install(TARGETS vorn vorn_shared EXPORT VornTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT VornTargets NAMESPACE Vorn:: DESTINATION ${VORN_CMAKE_DIR})

install(TARGETS vorn_cli test_vorn_3mic_stdin_stdout RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# A program that links the static library needs the C++ runtime the library
# was compiled against: what the C++ compiler links beyond what the C compiler
# does (-lstdc++ -lm with g++). The pkg-config file lists it as private
# libraries, and the CMake package adds it for projects that enable only C.
set(VORN_CXX_RUNTIME_LIBS ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
if(CMAKE_C_IMPLICIT_LINK_LIBRARIES)
  list(REMOVE_ITEM VORN_CXX_RUNTIME_LIBS ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})
endif()
list(REMOVE_DUPLICATES VORN_CXX_RUNTIME_LIBS)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VornConfig.cmake.in
  ${PROJECT_BINARY_DIR}/packaging/VornConfig.cmake
  INSTALL_DESTINATION ${VORN_CMAKE_DIR})
# Before 1.0 a minor release may change the interface (as the soname says).
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(vorn_compatibility SameMinorVersion)
else()
  set(vorn_compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/VornConfigVersion.cmake
  COMPATIBILITY ${vorn_compatibility})
install(FILES ${PROJECT_BINARY_DIR}/packaging/VornConfig.cmake ${PROJECT_BINARY_DIR}/packaging/VornConfigVersion.cmake
  DESTINATION ${VORN_CMAKE_DIR})

# vorn.pc finds the prefix from its own place (${pcfiledir}), so the same
# file serves `cmake --install --prefix ANYWHERE` and the Debian package.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
    message(FATAL_ERROR "CMAKE_INSTALL_${dir} must be relative to the prefix for vorn.pc")
  endif()
endforeach()
file(RELATIVE_PATH VORN_PC_TO_PREFIX /root/${VORN_PKGCONFIG_DIR} /root)
string(REGEX REPLACE "/$" "" VORN_PC_TO_PREFIX "${VORN_PC_TO_PREFIX}")
set(VORN_PC_LIBS_PRIVATE "")
foreach(lib ${VORN_CXX_RUNTIME_LIBS})
  string(APPEND VORN_PC_LIBS_PRIVATE " -l${lib}")
endforeach()
string(STRIP "${VORN_PC_LIBS_PRIVATE}" VORN_PC_LIBS_PRIVATE)
configure_file(${CMAKE_CURRENT_LIST_DIR}/vorn.pc.in ${PROJECT_BINARY_DIR}/packaging/vorn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/vorn.pc DESTINATION ${VORN_PKGCONFIG_DIR})
