vlt_add_test(NAME daemon_test LABEL integration
  SOURCES daemon_test.cpp ../clients/recording_peer.cpp LIBS vlt_daemon vlt_tools)
target_compile_definitions(daemon_test PRIVATE VLTSESSIOND_PROGRAM="$<TARGET_FILE:vltsessiond>")
add_dependencies(daemon_test vltsessiond)
vlt_add_test(NAME service_manager_test LABEL integration
  SOURCES service_manager_test.cpp LIBS vlt_daemon)
target_compile_definitions(service_manager_test PRIVATE
  VLTSESSIOND_PROGRAM="$<TARGET_FILE:vltsessiond>")
add_dependencies(service_manager_test vltsessiond)
