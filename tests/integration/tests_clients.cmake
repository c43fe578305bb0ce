# Clients and the programs they talk to.
vlt_add_test(NAME device_monitor_test LABEL integration SOURCES device_monitor_test.cpp
  LIBS vlt_examples vlt_tools TIMEOUT 120)
target_compile_definitions(device_monitor_test PRIVATE
  VLT_DEVICE_MONITOR="$<TARGET_FILE:device_monitor>" VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
add_dependencies(device_monitor_test device_monitor vltctl)

vlt_add_test(NAME clients_launch_test LABEL integration SOURCES clients_launch_test.cpp
  LIBS vlt_clients TIMEOUT 120 NATIVE_ONLY)
if(TARGET clients_launch_test)
  target_compile_definitions(clients_launch_test PRIVATE
    VLT_BUILD_SHARE="${PROJECT_BINARY_DIR}/share" VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
  add_dependencies(clients_launch_test vltsessiond device_monitor vltctl)
endif()
