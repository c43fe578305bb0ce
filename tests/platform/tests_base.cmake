vlt_add_test(NAME platform_objects_test LABEL unit
  SOURCES cf_object_test.cpp cf_string_test.cpp text_codec_test.cpp
  LIBS vlt_platform
)
vlt_add_test(NAME platform_toolbox_test LABEL unit
  SOURCES memory_manager_test.cpp notices_test.cpp text_utils_test.cpp
  LIBS vlt_platform
)
vlt_add_test(NAME platform_process_test LABEL integration
  SOURCES process_manager_test.cpp
  LIBS vlt_platform
)
vlt_add_test(NAME platform_debugger_test LABEL integration NATIVE_ONLY
  SOURCES debugger_test.cpp
  LIBS vlt_platform
)
