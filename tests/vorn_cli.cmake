# End-to-end tests of the `vorn` tool run the built executable; the
# direction consensus is also checked on its own.
add_dependencies(test_vorn_cli vorn_cli)
target_link_libraries(test_vorn_cli PRIVATE vorn_cli_parts)
vorn_program_command(cli_command vorn_cli)
target_compile_definitions(test_vorn_cli PRIVATE VORN_CLI_PATH="${cli_command}")
