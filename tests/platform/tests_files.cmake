# File, Folder and Process Manager, login sessions.
vlt_add_test(NAME files_test LABEL unit
  SOURCES bundle_test.cpp file_records_test.cpp folders_test.cpp
  LIBS vlt_platform
)
vlt_add_test(NAME process_list_test LABEL integration NATIVE_ONLY
  SOURCES process_list_test.cpp
  LIBS vlt_util
)
