vlt_add_test(NAME port_faults_test LABEL integration SOURCES port_faults_test.cpp
  LIBS vlt_aeport vlt_fault_support TIMEOUT 120 NATIVE_ONLY)
vlt_add_test(NAME ring_exchange_test LABEL integration SOURCES ring_exchange_test.cpp
  LIBS vlt_platform)
# The program of the other CPU architecture comes from its own build.
if(VLT_PEER_BUILD)
  target_compile_definitions(ring_exchange_test PRIVATE VLT_WITH_OTHER_ARCHITECTURE)
endif()
