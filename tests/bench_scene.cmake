# The bench's scene simulator and metrics are checked by their own test.
target_link_libraries(test_bench_scene PRIVATE vorn_scene)
