# The public header compiles as strict C99.
add_library(vorn_c_header_check OBJECT ${CMAKE_CURRENT_SOURCE_DIR}/c_header_check.c)
target_include_directories(vorn_c_header_check PRIVATE ${PROJECT_SOURCE_DIR}/include)
set_target_properties(vorn_c_header_check PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(vorn_c_header_check PRIVATE -pedantic)
target_sources(test_vorn_param PRIVATE $<TARGET_OBJECTS:vorn_c_header_check>)
