# Programs in which any allocation may fail.
if(TARGET vlt_failing_allocations)
  foreach(name IN ITEMS events lists)
    vlt_add_test(NAME no_memory_${name}_test LABEL integration SOURCES no_memory_${name}_test.cpp
      LIBS vlt_failing_allocations vlt_aeport vlt_plist TIMEOUT 240 NATIVE_ONLY)
  endforeach()
  vlt_add_test(NAME no_memory_programs_test LABEL integration
    SOURCES no_memory_programs_test.cpp process_use.cpp
    LIBS vlt_failing_allocations vlt_daemon vlt_tools TIMEOUT 300 NATIVE_ONLY)
  # It starts an application.
  if(TARGET launched_program)
    vlt_add_test(NAME no_memory_calls_test LABEL integration
      SOURCES no_memory_calls_test.cpp launch_support.cpp process_use.cpp
      LIBS vlt_failing_allocations vlt_launch vlt_aeport TIMEOUT 240 NATIVE_ONLY)
    target_compile_definitions(no_memory_calls_test PRIVATE
      LAUNCHED_PROGRAM="$<TARGET_FILE:launched_program>")
    add_dependencies(no_memory_calls_test launched_program)
  endif()
endif()
