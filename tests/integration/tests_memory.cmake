# Programs in which any allocation may fail. The thread sanitizer has an allocator of its own that
# cannot be put below the layer, and a static program's cannot either.
if(NOT VLT_SANITIZE MATCHES "thread")
  foreach(name IN ITEMS events lists)
    vlt_add_test(NAME no_memory_${name}_test LABEL integration
      SOURCES no_memory_${name}_test.cpp ../support/failing_allocations.cpp
      LIBS vlt_aeport vlt_plist TIMEOUT 240 NATIVE_ONLY)
  endforeach()
  vlt_add_test(NAME no_memory_programs_test LABEL integration
    SOURCES no_memory_programs_test.cpp process_use.cpp ../support/failing_allocations.cpp
    LIBS vlt_daemon vlt_tools TIMEOUT 300 NATIVE_ONLY)
endif()
