vlt_add_test(NAME port_faults_test LABEL integration SOURCES port_faults_test.cpp
  LIBS vlt_aeport vlt_fault_support TIMEOUT 120 NATIVE_ONLY)
vlt_add_test(NAME ring_exchange_test LABEL integration SOURCES ring_exchange_test.cpp
  LIBS vlt_platform MIXES_KINDS)
