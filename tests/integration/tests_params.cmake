# Processes of two kinds of machine in one session. The programs of the other kind come from its
# own build, and only where that is known is there anything to test.
set(mixed_hosts_entry PROGRAM_ONLY)
if(VLT_PEER_BUILD)
  set(mixed_hosts_entry "")
endif()
vlt_add_test(NAME typed_exchange_test LABEL integration SOURCES typed_exchange_test.cpp
  LIBS vlt_aeport TIMEOUT 120 ${mixed_hosts_entry})
