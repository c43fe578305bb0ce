foreach(name IN ITEMS type_ref dictionary)
  vlt_add_test(NAME ${name}_test LABEL unit SOURCES ${name}_test.cpp LIBS vlt_plist)
endforeach()
foreach(name IN ITEMS dictionary_io preferences)
  vlt_add_test(NAME ${name}_test LABEL unit SOURCES ${name}_test.cpp ../support/observed_syncs.cpp
    LIBS vlt_plist)
endforeach()
