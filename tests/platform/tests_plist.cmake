vlt_add_test(NAME platform_plist_test LABEL unit
  SOURCES plist_binary_test.cpp plist_calls_test.cpp plist_text_test.cpp plist_xml_test.cpp
  LIBS vlt_platform
)
