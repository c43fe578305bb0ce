# Property lists: the documented calls, readers and writers of each form.
target_sources(vlt_platform PRIVATE
  host/plist_binary_read.cpp
  host/plist_binary_write.cpp
  host/plist_builder.cpp
  host/plist_reader.cpp
  host/plist_text.cpp
  host/plist_text_read.cpp
  host/plist_values.cpp
  host/plist_walk.cpp
  host/plist_xml_markup.cpp
  host/plist_xml_prolog.cpp
  host/plist_xml_read.cpp
  host/plist_xml_write.cpp
  host/property_list.cpp
)
