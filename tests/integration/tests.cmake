vlt_add_test(NAME daemon_test LABEL integration SOURCES daemon_test.cpp LIBS vlt_daemon)
target_compile_definitions(daemon_test PRIVATE VLTSESSIOND_PROGRAM="$<TARGET_FILE:vltsessiond>")
add_dependencies(daemon_test vltsessiond)

vlt_add_test(NAME delivery_test LABEL integration SOURCES delivery_test.cpp LIBS vlt_aeport)

# Processes of two kinds of machine in one session. The programs of the other kind come from its
# own build, and only where that is known is there anything to test.
set(mixed_hosts_entry PROGRAM_ONLY)
if(VLT_PEER_BUILD)
  set(mixed_hosts_entry ENVIRONMENT
    VLT_PEER_TESTS=${VLT_PEER_BUILD}/tests VLT_PEER_EMULATOR=${VLT_PEER_EMULATOR})
endif()
vlt_add_test(NAME mixed_hosts_test LABEL integration SOURCES mixed_hosts_test.cpp LIBS vlt_aeport
  TIMEOUT 120 ${mixed_hosts_entry})
