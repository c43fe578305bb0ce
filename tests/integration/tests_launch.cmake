# Real applications, started by this machine's kernel: not for programs that an emulator runs.
if(CMAKE_CROSSCOMPILING)
  return()
endif()

add_executable(launched_program integration/launched_program.cpp)
target_link_libraries(launched_program PRIVATE vlt_aeport vlt_warnings)

foreach(part IN ITEMS finding faults log)
  vlt_add_test(NAME launch_${part}_test LABEL integration
    SOURCES launch_${part}_test.cpp launch_support.cpp process_use.cpp
    LIBS vlt_launch vlt_aeport TIMEOUT 300 NATIVE_ONLY)
  target_compile_definitions(launch_${part}_test PRIVATE
    LAUNCHED_PROGRAM="$<TARGET_FILE:launched_program>")
  add_dependencies(launch_${part}_test launched_program)
endforeach()

vlt_add_test(NAME vltctl_launch_test LABEL integration
  SOURCES ../tools/verbs/vltctl_launch_test.cpp ../tools/verbs/applications_test.cpp
    launch_support.cpp process_use.cpp
  LIBS vlt_tools TIMEOUT 120 NATIVE_ONLY)
target_compile_definitions(vltctl_launch_test PRIVATE
  LAUNCHED_PROGRAM="$<TARGET_FILE:launched_program>" VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
add_dependencies(vltctl_launch_test launched_program vltctl)
