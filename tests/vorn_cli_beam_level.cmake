# The `vorn` tool's microphone warnings and level target, run through the
# built executable (through the emulator in a cross build).
add_dependencies(test_vorn_cli_beam_level vorn_cli)
vorn_program_command(beam_level_cli_command vorn_cli)
target_compile_definitions(test_vorn_cli_beam_level PRIVATE VORN_CLI_PATH="${beam_level_cli_command}")
