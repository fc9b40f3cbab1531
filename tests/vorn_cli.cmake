# End-to-end tests of the `vorn` tool run the built executable; the
# direction consensus is also checked on its own.
add_dependencies(test_vorn_cli vorn_cli)
target_link_libraries(test_vorn_cli PRIVATE vorn_cli_parts)
target_compile_definitions(test_vorn_cli PRIVATE VORN_CLI_PATH="$<TARGET_FILE:vorn_cli>")
