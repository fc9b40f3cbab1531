# The Python module's tests run under pytest with the package from the build
# tree and the built `vorn` tool to compare against.
if(TARGET vorn_python)
  execute_process(COMMAND ${Python3_EXECUTABLE} -c "import pytest, numpy"
                  RESULT_VARIABLE VORN_PYTEST_MISSING OUTPUT_QUIET ERROR_QUIET)
  if(VORN_PYTEST_MISSING)
    message(STATUS "pytest or numpy missing: the Python tests are not run")
  else()
    add_test(NAME python COMMAND ${Python3_EXECUTABLE} -m pytest -q -p no:cacheprovider ${CMAKE_CURRENT_SOURCE_DIR}/python)
    set_tests_properties(python PROPERTIES TIMEOUT 600 ENVIRONMENT
      "PYTHONPATH=${PROJECT_BINARY_DIR}/python;VORN_CLI=$<TARGET_FILE:vorn_cli>")
  endif()
endif()
