vlt_add_test(NAME command_line_test LABEL unit SOURCES command_line_test.cpp LIBS vlt_tools)
vlt_add_test(NAME desc_model_test LABEL unit SOURCES values/desc_model_test.cpp LIBS vlt_tools)
vlt_add_test(NAME json_value_test LABEL unit SOURCES values/json_value_test.cpp LIBS vlt_tools)
vlt_add_test(NAME parameter_text_test LABEL unit SOURCES values/parameter_text_test.cpp LIBS vlt_tools)
vlt_add_test(NAME vltctl_test LABEL integration SOURCES vltctl_test.cpp verbs/outcomes_test.cpp
  LIBS vlt_tools)
target_compile_definitions(vltctl_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
add_dependencies(vltctl_test vltctl)
vlt_add_test(NAME plist_values_test LABEL unit SOURCES plist/values_test.cpp LIBS vlt_tools)
vlt_add_test(NAME vltctl_plist_test LABEL integration NATIVE_ONLY SOURCES plist/vltctl_plist_test.cpp
  LIBS vlt_tools)
if(TARGET vltctl_plist_test)
  target_compile_definitions(vltctl_plist_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
  add_dependencies(vltctl_plist_test vltctl)
endif()
vlt_add_test(NAME vltctl_host_test LABEL integration NATIVE_ONLY SOURCES verbs/vltctl_host_test.cpp
  LIBS vlt_tools TIMEOUT 120)
if(TARGET vltctl_host_test)
  target_compile_definitions(vltctl_host_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
  add_dependencies(vltctl_host_test vltctl)
endif()
vlt_add_test(NAME prefs_verb_test LABEL integration SOURCES verbs/prefs_test.cpp LIBS vlt_platform)
target_compile_definitions(prefs_verb_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
add_dependencies(prefs_verb_test vltctl)
vlt_add_test(NAME prefs_watch_test LABEL integration NATIVE_ONLY
  SOURCES verbs/prefs_watch_test.cpp LIBS vlt_platform TIMEOUT 300)
if(TARGET prefs_watch_test)
  target_compile_definitions(prefs_watch_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>")
  add_dependencies(prefs_watch_test vltctl)
endif()
if(TARGET vlt_failing_allocations)
  vlt_add_test(NAME vltctl_memory_test LABEL unit NATIVE_ONLY
    SOURCES plist/vltctl_memory_test.cpp LIBS vlt_failing_allocations vlt_tools)
endif()
vlt_add_test(NAME descriptions_test LABEL integration NATIVE_ONLY
  SOURCES verbs/descriptions_test.cpp verbs/serve_test.cpp LIBS vlt_tools)
vlt_add_test(NAME every_verb_test LABEL integration NATIVE_ONLY
  SOURCES verbs/every_verb_test.cpp verbs/terminal_test.cpp LIBS vlt_tools TIMEOUT 180)
if(TARGET every_verb_test)
  target_compile_definitions(every_verb_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>"
    DEVICE_MONITOR_BUNDLE="$<TARGET_FILE_DIR:device_monitor>/../..")
  add_dependencies(every_verb_test vltctl device_monitor)
endif()
if(TARGET descriptions_test)
  target_compile_definitions(descriptions_test PRIVATE VLTCTL_PROGRAM="$<TARGET_FILE:vltctl>"
    SESSION_DAEMON_BUNDLE="$<TARGET_FILE_DIR:vltsessiond>/../.."
    DEVICE_MONITOR_BUNDLE="$<TARGET_FILE_DIR:device_monitor>/../..")
  add_dependencies(descriptions_test vltctl vltsessiond device_monitor)
endif()
