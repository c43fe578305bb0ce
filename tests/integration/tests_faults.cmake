# Faults of peers and of the machine, each with real processes. What they share is built once; as
# objects, so that its roles are in every program.
add_library(vlt_fault_support OBJECT integration/fault_server.cpp integration/process_use.cpp
  integration/raw_peer.cpp)
target_link_libraries(vlt_fault_support PUBLIC vlt_aeport vlt_test_support PRIVATE vlt_warnings)

if(CMAKE_CROSSCOMPILING)
  return()
endif()

foreach(fault IN ITEMS client death slow_peers frames replies churn flood ports sources disk)
  vlt_add_test(NAME fault_${fault}_test LABEL integration SOURCES fault_${fault}_test.cpp
    LIBS vlt_fault_support TIMEOUT 300 NATIVE_ONLY)
endforeach()

# One process: the thread sanitizer's preset runs it with the folder that it tests.
set_property(TEST fault_sources_test APPEND PROPERTY LABELS platform)
