# The bad-input tests run both built command-line tools.
add_dependencies(test_tool_bad_input test_vorn_3mic_stdin_stdout vorn_cli)
target_compile_definitions(test_tool_bad_input PRIVATE
  VORN_TOOL_PATH="$<TARGET_FILE:test_vorn_3mic_stdin_stdout>"
  VORN_CLI_PATH="$<TARGET_FILE:vorn_cli>")
