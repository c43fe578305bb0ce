vlt_add_test(NAME platform_values_test LABEL unit
  SOURCES cf_number_test.cpp cf_collections_test.cpp cf_nesting_test.cpp
  LIBS vlt_platform
)
vlt_add_test(NAME platform_streams_test LABEL unit
  SOURCES cf_data_test.cpp cf_url_stream_test.cpp
  LIBS vlt_platform
)
