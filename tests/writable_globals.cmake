# The library keeps nothing writable outside the caller's buffer: no object
# of libvorn.a may sit in a writable data or bss section (the tables that
# hold pointers live in .data.rel.ro, read-only once loaded). Instances on
# separate threads then share no state, whether or not a run happens to
# exercise the code that would write it. Runs as a script under ctest.
if(CMAKE_SCRIPT_MODE_FILE)
  execute_process(COMMAND ${OBJDUMP} -t ${LIBRARY} OUTPUT_VARIABLE table RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "objdump -t ${LIBRARY} failed: ${rc}")
  endif()
  string(REPLACE "\n" ";" lines "${table}")
  set(found "")
  foreach(line IN LISTS lines)
    # The personality routine's reference is the runtime's, written once by
    # the loader.
    if(line MATCHES "[ \t]O[ \t]+\\.t?(data|bss)" AND NOT line MATCHES "\\.data\\.rel\\.ro"
       AND NOT line MATCHES "DW\\.ref\\.__gxx_personality_v0")
      string(APPEND found "\n  ${line}")
    endif()
  endforeach()
  if(found)
    message(FATAL_ERROR "writable objects in ${LIBRARY}:${found}")
  endif()
  message(STATUS "no writable objects in ${LIBRARY}")
  return()
endif()

# The sanitizers add writable bookkeeping of their own (source locations
# the runtime marks as reported), so only plain builds are checked.
if(NOT VORN_SANITIZE AND NOT VORN_SANITIZE_THREAD)
  add_test(NAME Library.HasNoWritableGlobals
           COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${CMAKE_OBJDUMP} -DLIBRARY=$<TARGET_FILE:vorn>
                   -P ${CMAKE_CURRENT_LIST_FILE})
endif()
