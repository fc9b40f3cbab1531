# The simulator's test also writes scenes with the bench's scene files.
target_link_libraries(test_sim PRIVATE vorn_scene)
