# The audio-file helpers live with the command-line tools, outside the library.
if(TARGET test_audio_io)
  target_link_libraries(test_audio_io PRIVATE vorn_audio_io)
endif()
