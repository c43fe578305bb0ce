# Against a recording peer in another process.
vlt_add_test(NAME device_requests_test LABEL integration
  SOURCES device_requests_test.cpp recording_peer.cpp LIBS vlt_clients vlt_tools TIMEOUT 120)

vlt_add_test(NAME quit_request_test LABEL unit SOURCES quit_request_test.cpp LIBS vlt_clients)
