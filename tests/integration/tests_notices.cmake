# Notices through a real notification service on a bus of the test's own. The helper is built only
# where libsystemd is, and never for a machine that only an emulator runs.
if(CMAKE_CROSSCOMPILING OR NOT TARGET vlt-notify)
  return()
endif()

add_library(vlt_notice_support OBJECT support/notification_service.cpp
  integration/notice_support.cpp)
target_link_libraries(vlt_notice_support PUBLIC vlt_aeport vlt_test_support vlt_systemd
  PRIVATE vlt_warnings)

foreach(test IN ITEMS notice notice_faults)
  vlt_add_test(NAME ${test}_test LABEL integration
    SOURCES ${test}_test.cpp ../support/interposed_calls.cpp
    LIBS vlt_notice_support TIMEOUT 120 NATIVE_ONLY)
  add_dependencies(${test}_test vlt-notify)
endforeach()

vlt_add_test(NAME notify_verb_test LABEL integration NATIVE_ONLY
  SOURCES ../tools/verbs/notify_test.cpp LIBS vlt_notice_support TIMEOUT 120)
target_compile_definitions(notify_verb_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
add_dependencies(notify_verb_test vltctl vlt-notify)
