vlt_add_test(NAME frame_stream_test LABEL unit SOURCES frame_stream_test.cpp LIBS vlt_platform)
vlt_add_test(NAME run_loop_test LABEL unit SOURCES run_loop_test.cpp LIBS vlt_platform)
vlt_add_test(NAME mach_port_test LABEL unit SOURCES mach_port_test.cpp LIBS vlt_platform)
vlt_add_test(NAME messages_test LABEL unit SOURCES messages_test.cpp LIBS vlt_platform)
