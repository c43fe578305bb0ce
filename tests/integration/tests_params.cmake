# Processes of several CPU architectures in one session. The programs of the others come from
# their own builds, and only where one is known is there anything to test.
set(mixed_hosts_entry PROGRAM_ONLY)
if(VLT_PEER_BUILDS)
  set(mixed_hosts_entry "")
endif()
vlt_add_test(NAME typed_exchange_test LABEL integration SOURCES typed_exchange_test.cpp
  LIBS vlt_aeport TIMEOUT 600 MIXES_KINDS ${mixed_hosts_entry})
target_compile_definitions(typed_exchange_test PRIVATE VLT_CPU="${CMAKE_SYSTEM_PROCESSOR}")
