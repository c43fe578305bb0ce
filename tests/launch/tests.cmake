vlt_add_test(NAME launch_test LABEL unit SOURCES launch_test.cpp LIBS vlt_launch vlt_aeport)
vlt_add_test(NAME launch_preferences_test LABEL unit SOURCES launch_preferences_test.cpp
  LIBS vlt_launch)
