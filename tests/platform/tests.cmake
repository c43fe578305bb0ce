# Tests of platform/host, in folders as there. A program may take several rooms' tests.
vlt_add_test(NAME platform_objects_test LABEL unit
  SOURCES base/text_codec_test.cpp objects/object_test.cpp objects/string_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME host_mutex_test LABEL unit SOURCES base/mutex_test.cpp LIBS vlt_platform)
vlt_add_test(NAME platform_toolbox_test LABEL unit
  SOURCES notices/notices_test.cpp services/memory_test.cpp services/text_utils_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME platform_services_test LABEL integration NATIVE_ONLY
  SOURCES services/security_session_test.cpp services/system_log_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME platform_debugger_test LABEL integration NATIVE_ONLY
  SOURCES services/debugger_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME platform_process_test LABEL integration
  SOURCES processes/serial_number_test.cpp
  LIBS vlt_platform)

vlt_add_test(NAME platform_values_test LABEL unit
  SOURCES objects/collections_test.cpp objects/nesting_test.cpp objects/number_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME platform_streams_test LABEL unit
  SOURCES objects/data_test.cpp objects/url_stream_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME platform_plist_test LABEL unit
  SOURCES plist/binary_test.cpp plist/calls_test.cpp plist/key_order_test.cpp plist/text_test.cpp
    plist/xml_test.cpp
  LIBS vlt_platform)

vlt_add_test(NAME frame_stream_test LABEL unit SOURCES wire/frame_stream_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME ring_test LABEL unit SOURCES wire/ring_test.cpp LIBS vlt_platform)
vlt_add_test(NAME ae_test LABEL unit
  SOURCES events/codec_test.cpp events/coerce_test.cpp events/descriptor_test.cpp
    events/event_test.cpp events/list_test.cpp events/print_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME mach_port_test LABEL unit SOURCES ports/mach_port_test.cpp LIBS vlt_platform)
vlt_add_test(NAME messages_test LABEL unit SOURCES ports/messages_test.cpp LIBS vlt_platform)
vlt_add_test(NAME run_loop_test LABEL unit SOURCES loop/run_loop_test.cpp LIBS vlt_platform)

vlt_add_test(NAME files_test LABEL unit
  SOURCES applications/bundle_test.cpp base/install_prefix_test.cpp files/file_records_test.cpp
    files/folders_test.cpp
  LIBS vlt_platform)
vlt_add_test(NAME process_list_test LABEL integration NATIVE_ONLY
  SOURCES applications/process_list_test.cpp
  LIBS vlt_util)
