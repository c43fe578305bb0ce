vlt_add_test(NAME port_name_test LABEL unit SOURCES port_name_test.cpp LIBS vlt_aeport)
vlt_add_test(NAME port_listener_test LABEL unit SOURCES port_listener_test.cpp LIBS vlt_aeport)
vlt_add_test(NAME event_test LABEL unit SOURCES event_test.cpp LIBS vlt_aeport)
