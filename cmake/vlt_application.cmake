# vlt_add_application(), for this project and for those that use the installed library.

include(GNUInstallDirs)

# vlt_add_application(NAME BUNDLE name IDENTIFIER text SIGNATURE code [VERSION text] [INSTALL]
#                     [EVENTS file] SOURCES ... [LIBS ...])
# A program inside an application bundle, so that clients can find and open it. The arguments are
# the keys of the bundle's Info.plist:
#   NAME        CFBundleExecutable: the program, and the target
#   BUNDLE      CFBundleName: the bundle is the folder BUNDLE.app
#   IDENTIFIER  CFBundleIdentifier: clients find the application by it
#   SIGNATURE   CFBundleSignature: four ASCII characters, another way to find it
#   VERSION     CFBundleVersion; default: the version of the project
#   EVENTS      a file with the key VLTEvents and its array, which tells people which requests the
#               program takes; its path is absolute or from the folder of the CMakeLists.txt
# The bundle is below share/veltrane/Applications of the build folder and, with INSTALL, of the
# installation. A link to the program is in the target's build folder and in bin.
function(vlt_add_application name)
  cmake_parse_arguments(app "INSTALL" "BUNDLE;EVENTS;IDENTIFIER;SIGNATURE;VERSION" "SOURCES;LIBS" ${ARGN})
  foreach(key IN ITEMS BUNDLE IDENTIFIER SIGNATURE SOURCES)
    if("${app_${key}}" STREQUAL "")
      message(FATAL_ERROR "vlt_add_application(${name}): ${key} is missing")
    endif()
  endforeach()
  if(app_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "vlt_add_application(${name}): unknown: ${app_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT app_SIGNATURE MATCHES "^[ -~][ -~][ -~][ -~]$")
    message(FATAL_ERROR
      "vlt_add_application(${name}): SIGNATURE \"${app_SIGNATURE}\" is not four ASCII characters")
  endif()
  if("${app_VERSION}" STREQUAL "")
    set(app_VERSION "${PROJECT_VERSION}")
  endif()

  set(app_EVENTS_TEXT "")
  if(app_EVENTS)
    get_filename_component(app_EVENTS "${app_EVENTS}" ABSOLUTE)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${app_EVENTS})
    file(READ ${app_EVENTS} app_EVENTS_TEXT)
  endif()

  set(contents veltrane/Applications/${app_BUNDLE}.app/Contents)
  set(built ${PROJECT_BINARY_DIR}/share/${contents})
  set(app_PROGRAM ${name})
  foreach(key IN ITEMS PROGRAM BUNDLE IDENTIFIER SIGNATURE VERSION)
    string(REPLACE "&" "&amp;" app_${key} "${app_${key}}")
    string(REPLACE "<" "&lt;" app_${key} "${app_${key}}")
  endforeach()
  configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/Info.plist.in ${built}/Info.plist @ONLY)
  add_executable(${name} ${app_SOURCES})
  target_link_libraries(${name} PRIVATE ${app_LIBS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${built}/Linux)
  add_custom_command(TARGET ${name} POST_BUILD VERBATIM
    COMMAND ${CMAKE_COMMAND} -E create_symlink ${built}/Linux/${name}
      ${CMAKE_CURRENT_BINARY_DIR}/${name})
  if(NOT app_INSTALL)
    return()
  endif()

  set(installed ${CMAKE_INSTALL_DATADIR}/${contents})
  install(TARGETS ${name} RUNTIME DESTINATION ${installed}/Linux)
  install(FILES ${built}/Info.plist DESTINATION ${installed})
  # Relative, so that an installed tree can be moved and packed.
  file(RELATIVE_PATH link ${CMAKE_INSTALL_FULL_BINDIR}
    ${CMAKE_INSTALL_FULL_DATADIR}/${contents}/Linux/${name})
  set(link_file ${CMAKE_CURRENT_BINARY_DIR}/link/${name})
  file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/link)
  file(CREATE_LINK ${link} ${link_file} SYMBOLIC)
  install(FILES ${link_file} DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()
