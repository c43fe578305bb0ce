# Preferences while the machine fails and processes die.
vlt_add_test(NAME prefs_commit_test LABEL integration
  SOURCES prefs_commit_test.cpp ../support/interposed_calls.cpp LIBS vlt_plist
  TIMEOUT 120 NATIVE_ONLY)
vlt_add_test(NAME prefs_writers_test LABEL integration
  SOURCES prefs_writers_test.cpp ../support/interposed_calls.cpp LIBS vlt_plist vlt_fault_support
  TIMEOUT 300 NATIVE_ONLY)
