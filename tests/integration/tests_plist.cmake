vlt_add_test(NAME plist_exchange_test LABEL integration SOURCES plist_exchange_test.cpp
  LIBS vlt_tools TIMEOUT 120 NATIVE_ONLY)
if(TARGET plist_exchange_test)
  target_compile_definitions(plist_exchange_test PRIVATE
    VLT_PLIST_EXCHANGE="${CMAKE_CURRENT_LIST_DIR}/plist_exchange.py"
    VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
  add_dependencies(plist_exchange_test vltctl)
endif()

# Sanitizers take memory of their own.
if(NOT VLT_SANITIZE)
  vlt_add_test(NAME plist_memory_test LABEL integration SOURCES plist_memory_test.cpp
    LIBS vlt_platform TIMEOUT 120 NATIVE_ONLY)
endif()
