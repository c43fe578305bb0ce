# Against a recording peer in another process. The session is one that may have a device monitor of
# its own.
vlt_add_test(NAME device_requests_test LABEL integration
  SOURCES device_requests_test.cpp recording_peer.cpp LIBS vlt_clients vlt_tools TIMEOUT 120
  ENVIRONMENT VLTHOST_SESSION_ID=0xabc123 VLTHOST_SESSION_BITS=0x10)

# Its stand-ins for two operations of the clients' base: see there.
vlt_add_test(NAME quit_failure_test LABEL unit SOURCES quit_failure_test.cpp LIBS vlt_daemon)
target_link_options(quit_failure_test PRIVATE
  LINKER:--wrap=_ZN18VLTAEClientSupport16LogClientFailureEiPKc
  LINKER:--wrap=_ZN18VLTAEClientSupport14ConstructEventER25VLTPortDestinationAddressR20VLTAppleEventWrapperb)
