# The bad-input tests run both built command-line tools.
add_dependencies(test_tool_bad_input test_vorn_3mic_stdin_stdout vorn_cli)
vorn_program_command(tool_command test_vorn_3mic_stdin_stdout)
vorn_program_command(cli_command vorn_cli)
target_compile_definitions(test_tool_bad_input PRIVATE
  VORN_TOOL_PATH="${tool_command}"
  VORN_CLI_PATH="${cli_command}")
