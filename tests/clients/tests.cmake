# Against a recording peer in another process. The session is one that may have a device monitor of
# its own.
vlt_add_test(NAME device_requests_test LABEL integration
  SOURCES device_requests_test.cpp recording_peer.cpp LIBS vlt_clients vlt_tools TIMEOUT 120
  ENVIRONMENT VLTHOST_SESSION_ID=0xabc123 VLTHOST_SESSION_BITS=0x10)

vlt_add_test(NAME quit_request_test LABEL unit SOURCES quit_request_test.cpp LIBS vlt_clients)
