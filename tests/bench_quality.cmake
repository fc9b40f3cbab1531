# The quality bench's runner and scoring steps have their own test.
target_link_libraries(test_bench_quality PRIVATE vorn_quality)
# The direction bench's baselines and walking talker have their own test.
target_link_libraries(test_bench_direction PRIVATE vorn_quality)
