vlt_add_test(NAME util_test LABEL unit
  SOURCES
    app_error_utils_test.cpp
    conversions_test.cpp
    ostype_text_test.cpp
    status_text_test.cpp
    strings_test.cpp
    version_text_test.cpp
  LIBS vlt_util
)
vlt_add_test(NAME util_host_test LABEL unit
  SOURCES file_utils_test.cpp times_test.cpp user_session_test.cpp
  LIBS vlt_util
  TIMEOUT 120
)
