vlt_add_test(NAME session_manager_test LABEL unit SOURCES session_manager_test.cpp LIBS vlt_daemon)
vlt_add_test(NAME event_service_test LABEL unit SOURCES event_service_test.cpp LIBS vlt_daemon)

# The start sequence with its build switch on: the notice of a failed start.
vlt_add_test(NAME start_notice_test LABEL unit
  SOURCES start_notice_test.cpp ../../daemon/session_monitor.cpp LIBS vlt_daemon)
target_compile_definitions(start_notice_test PRIVATE VLT_NOTIFY_ON_START_FAILURE=true)

# The entry under another name, over a start sequence that throws.
vlt_add_test(NAME daemon_entry_test LABEL unit
  SOURCES daemon_entry_test.cpp ../../daemon/main.cpp LIBS vlt_util)
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/../../daemon/main.cpp
  PROPERTIES COMPILE_DEFINITIONS main=DaemonMain)
