# The end-to-end tests run the built command-line tool.
add_dependencies(test_tool_e2e test_vorn_3mic_stdin_stdout)
target_compile_definitions(test_tool_e2e PRIVATE
  VORN_TOOL_PATH="$<TARGET_FILE:test_vorn_3mic_stdin_stdout>")
