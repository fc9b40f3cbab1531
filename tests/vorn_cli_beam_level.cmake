# The `vorn` tool's microphone warnings and level target, run through the
# built executable.
add_dependencies(test_vorn_cli_beam_level vorn_cli)
target_compile_definitions(test_vorn_cli_beam_level PRIVATE VORN_CLI_PATH="$<TARGET_FILE:vorn_cli>")
