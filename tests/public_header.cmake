# The public headers compile as strict C89, C99 and C11 and as C++11, every
# warning an error, and each copy reports the records' layout to
# test_public_header, which compares it with the library's.
set(VORN_HEADER_CHECK_WARNINGS -Wall -Wextra -Werror -pedantic-errors)
# (CMake calls C89 by its ISO name, C90.)
foreach(standard 89 99 11)
  set(dialect ${standard})
  if(standard STREQUAL 89)
    set(dialect 90)
  endif()
  add_library(vorn_header_check_c${standard} OBJECT ${CMAKE_CURRENT_SOURCE_DIR}/c_header_check.c)
  set_target_properties(vorn_header_check_c${standard} PROPERTIES
    C_STANDARD ${dialect} C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
  target_compile_definitions(vorn_header_check_c${standard} PRIVATE HEADER_CHECK=header_check_c${standard})
  target_compile_options(vorn_header_check_c${standard} PRIVATE ${VORN_HEADER_CHECK_WARNINGS}
    -Wstrict-prototypes -Wold-style-definition -Wdeclaration-after-statement -Wmissing-prototypes)
  target_include_directories(vorn_header_check_c${standard} PRIVATE ${PROJECT_SOURCE_DIR}/include
                                                                    ${CMAKE_CURRENT_SOURCE_DIR})
  target_sources(test_public_header PRIVATE $<TARGET_OBJECTS:vorn_header_check_c${standard}>)
endforeach()
add_library(vorn_header_check_cxx OBJECT ${CMAKE_CURRENT_SOURCE_DIR}/cxx_header_check.cpp)
set_target_properties(vorn_header_check_cxx PROPERTIES CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
target_compile_definitions(vorn_header_check_cxx PRIVATE HEADER_CHECK=header_check_cxx)
target_compile_options(vorn_header_check_cxx PRIVATE ${VORN_HEADER_CHECK_WARNINGS})
target_include_directories(vorn_header_check_cxx PRIVATE ${PROJECT_SOURCE_DIR}/include ${CMAKE_CURRENT_SOURCE_DIR})
target_sources(test_public_header PRIVATE $<TARGET_OBJECTS:vorn_header_check_cxx>)
