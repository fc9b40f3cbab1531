# The end-to-end tests run the built command-line tool.
add_dependencies(test_tool_e2e test_vorn_3mic_stdin_stdout)
vorn_program_command(tool_command test_vorn_3mic_stdin_stdout)
target_compile_definitions(test_tool_e2e PRIVATE VORN_TOOL_PATH="${tool_command}")
