# Programs in which any allocation may fail.
if(TARGET vlt_failing_allocations)
  foreach(name IN ITEMS events lists)
    vlt_add_test(NAME no_memory_${name}_test LABEL integration SOURCES no_memory_${name}_test.cpp
      LIBS vlt_failing_allocations vlt_aeport vlt_plist TIMEOUT 240 NATIVE_ONLY)
  endforeach()
  vlt_add_test(NAME no_memory_programs_test LABEL integration
    SOURCES no_memory_programs_test.cpp process_use.cpp
    LIBS vlt_failing_allocations vlt_daemon vlt_tools TIMEOUT 300 NATIVE_ONLY)
endif()
