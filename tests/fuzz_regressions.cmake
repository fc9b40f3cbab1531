# The replay of the fuzz inputs calls the fuzz targets' bodies.
if(TARGET test_fuzz_regressions)
  target_link_libraries(test_fuzz_regressions PRIVATE vorn_fuzz_bodies)
endif()
