# Faults of peers and of the machine, each with real processes. What they share is built once; as
# objects, so that its roles are in every program.
add_library(vlt_fault_support OBJECT EXCLUDE_FROM_ALL integration/fault_server.cpp integration/process_use.cpp
  integration/raw_lane.cpp integration/raw_peer.cpp)
target_link_libraries(vlt_fault_support PUBLIC vlt_aeport vlt_test_support PRIVATE vlt_warnings)

if(CMAKE_CROSSCOMPILING)
  return()
endif()

foreach(fault IN ITEMS client death frames replies ports sources disk fairness lanes)
  vlt_add_test(NAME fault_${fault}_test LABEL integration SOURCES fault_${fault}_test.cpp
    LIBS vlt_fault_support TIMEOUT 120 NATIVE_ONLY)
endforeach()

# With a layer over the system calls that these tests make fail.
vlt_add_test(NAME fault_limits_test LABEL integration
  SOURCES fault_limits_test.cpp ../support/interposed_calls.cpp
  LIBS vlt_fault_support TIMEOUT 120 NATIVE_ONLY)
vlt_add_test(NAME fault_signals_test LABEL integration
  SOURCES fault_signals_test.cpp ../support/interrupted_calls.cpp
  LIBS vlt_fault_support TIMEOUT 120 NATIVE_ONLY)

# One process: the thread sanitizer's preset runs it with the folder that it tests.
set_property(TEST fault_sources_test APPEND PROPERTY LABELS platform)

# The same tests once more, with peers that take lanes (raw_peer.h). Left out are those that count
# the descriptors of a connection, or pass some.
foreach(fault IN ITEMS frames replies ports limits fairness)
  add_test(NAME fault_${fault}_lanes_test
    COMMAND ${VLT_TEST_LAUNCHER} $<TARGET_FILE:fault_${fault}_test>)
  math(EXPR timeout "120 * ${VLT_TEST_SLOWNESS}")
  set_tests_properties(fault_${fault}_lanes_test PROPERTIES LABELS "integration;integration"
    TIMEOUT ${timeout}
    ENVIRONMENT "VLT_TEST_LANES=1;GTEST_FILTER=-FewDescriptors*:PassedDescriptors*:HostilePeers*")
endforeach()
