# `vorn batch` runs through the built executable; its manifest reader is
# also checked on its own.
add_dependencies(test_vorn_batch vorn_cli)
target_link_libraries(test_vorn_batch PRIVATE vorn_cli_parts)
vorn_program_command(batch_cli_command vorn_cli)
target_compile_definitions(test_vorn_batch PRIVATE VORN_CLI_PATH="${batch_cli_command}")
