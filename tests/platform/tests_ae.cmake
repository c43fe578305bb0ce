# The Apple Event Manager's data model, codec, coercions and printing.
vlt_add_test(NAME ae_test LABEL unit
  SOURCES ae_codec_test.cpp ae_coerce_test.cpp ae_desc_test.cpp ae_event_test.cpp ae_list_test.cpp
    ae_print_test.cpp
  LIBS vlt_platform)
