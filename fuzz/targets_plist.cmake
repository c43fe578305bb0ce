vlt_add_fuzz_target(plist_binary plist_binary_fuzz.cpp)
vlt_add_fuzz_target(plist_text plist_text_fuzz.cpp)
vlt_add_fuzz_target(plist_xml plist_xml_fuzz.cpp)

# The opinion of another parser, where it is installed.
find_package(PkgConfig)
if(PkgConfig_FOUND AND NOT CMAKE_CROSSCOMPILING)
  pkg_check_modules(EXPAT IMPORTED_TARGET expat)
endif()
if(EXPAT_FOUND AND NOT CMAKE_CROSSCOMPILING)
  target_compile_definitions(plist_xml PRIVATE VLT_HAS_EXPAT)
  target_link_libraries(plist_xml PRIVATE PkgConfig::EXPAT)
endif()
