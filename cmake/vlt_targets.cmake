# Functions that create the targets of the folders. Each folder lists its own sources.

find_package(Threads REQUIRED)

# Warnings are for our own code only: GoogleTest is built without them.
add_library(vlt_warnings INTERFACE)
target_compile_options(vlt_warnings INTERFACE -Wall -Wextra $<$<BOOL:${VLT_WERROR}>:-Werror>)

# A 32-bit host without 64-bit atomic instructions takes them from a library.
set(VLT_ATOMIC_LIBRARY "")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "powerpc")
  set(VLT_ATOMIC_LIBRARY atomic)
endif()

# The powerpc preset exists for its word size and byte order. With a compiler for another CPU
# architecture, its tests would pass without testing that.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "powerpc")
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles("
    static_assert(sizeof(void*) == 4 && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__);
    int main() { return 0; }" VLT_IS_32_BIT_BIG_ENDIAN)
  if(NOT VLT_IS_32_BIT_BIG_ENDIAN)
    message(FATAL_ERROR "${CMAKE_CXX_COMPILER} does not compile for a 32-bit big-endian CPU; "
      "install g++-powerpc-linux-gnu")
  endif()
endif()

# vlt_add_library(NAME [SOURCES ...] [LIBS ...])
# The static library of one folder. LIBS are the folders that it may include.
function(vlt_add_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${arg_LIBS} PRIVATE vlt_warnings)
endfunction()

# vlt_host_room(NAME SOURCES ... [USES rooms ...])
# One room of platform/host: the static library vlt_host_NAME, linked against the rooms that it
# names. If tests are built, a program links the whole room with those rooms alone, so that an
# upward call does not link, even one through a platform interface.
function(vlt_host_room name)
  cmake_parse_arguments(arg "" "" "SOURCES;USES" ${ARGN})
  set(room vlt_host_${name})
  list(TRANSFORM arg_USES PREPEND vlt_host_ OUTPUT_VARIABLE used)
  vlt_add_library(${room} SOURCES ${arg_SOURCES} LIBS ${used} vlt_platform_interfaces)
  if(VLT_BUILD_TESTS)
    set(entry ${PROJECT_BINARY_DIR}/room_links.cpp)
    if(NOT EXISTS ${entry})
      file(WRITE ${entry} "int main() { return 0; }\n")
    endif()
    add_executable(${room}_links ${entry})
    target_link_libraries(${room}_links PRIVATE
      -Wl,--whole-archive $<TARGET_FILE:${room}> -Wl,--no-whole-archive ${used}
      vlt_platform_interfaces)
    add_dependencies(${room}_links ${room})
  endif()
endfunction()

# vlt_add_program(NAME SOURCES ... [LIBS ...] [INSTALL_TO folder])
function(vlt_add_program name)
  cmake_parse_arguments(arg "" "INSTALL_TO" "SOURCES;LIBS" ${ARGN})
  if(NOT arg_INSTALL_TO)
    set(arg_INSTALL_TO ${CMAKE_INSTALL_BINDIR})
  endif()
  vlt_add_bare_program(${name} SOURCES ${arg_SOURCES} LIBS ${arg_LIBS})
  install(TARGETS ${name} RUNTIME DESTINATION ${arg_INSTALL_TO})
endfunction()

# vlt_add_application(NAME BUNDLE name IDENTIFIER text SIGNATURE code [INSTALL]
#                     SOURCES ... [LIBS ...])
# A program inside an application bundle, so that clients can find and open it. The bundle is below
# share/veltrane/Applications of the build folder and, with INSTALL, of the installation. A link to
# the program is in the target's build folder and in bin.
function(vlt_add_application name)
  cmake_parse_arguments(app "INSTALL" "BUNDLE;IDENTIFIER;SIGNATURE" "SOURCES;LIBS" ${ARGN})
  set(app_PROGRAM ${name})
  set(contents veltrane/Applications/${app_BUNDLE}.app/Contents)
  set(built ${PROJECT_BINARY_DIR}/share/${contents})
  vlt_add_bare_program(${name} SOURCES ${app_SOURCES} LIBS ${app_LIBS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${built}/Linux)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/Info.plist.in ${built}/Info.plist @ONLY)
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

# What vlt_add_program and vlt_add_application have in common.
function(vlt_add_bare_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} vlt_warnings)
  if(NOT VLT_SANITIZE)
    # Binding the symbols of the shared C++ library at each start takes longer than all that a
    # program does before its port is claimed. Of the static library it contains only what it uses.
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc LINKER:--gc-sections)
  endif()
endfunction()

# vlt_add_merged_library(NAME STATIC|SHARED OBJECTS...)
# One library of the objects of several folders, installed as libvlt.
function(vlt_add_merged_library name kind)
  add_library(${name} ${kind} ${ARGN})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME vlt LINKER_LANGUAGE CXX
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${name} INTERFACE
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform/include)
  target_link_libraries(${name} PUBLIC Threads::Threads ${VLT_ATOMIC_LIBRARY})
  install(TARGETS ${name} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

# vlt_install_headers(FOLDERS...)
# The headers that users of the library include, below one folder, so that an installed program
# is compiled with -Iinclude/vlt -Iinclude/vlt/platform/include. platform/host is private.
function(vlt_install_headers)
  set(target ${CMAKE_INSTALL_INCLUDEDIR}/vlt)
  foreach(folder IN LISTS ARGN)
    if(folder STREQUAL "platform")
      set(folder platform/include)
    endif()
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}/ DESTINATION ${target}/${folder}
      FILES_MATCHING PATTERN *.h)
  endforeach()
endfunction()

# The command that starts a test program, and the factor by which its time limit grows.
set(VLT_TEST_LAUNCHER "")
set(VLT_TEST_SLOWNESS 1)
if(CMAKE_CROSSCOMPILING)
  set(VLT_TEST_LAUNCHER ${CMAKE_CROSSCOMPILING_EMULATOR})
  set(VLT_TEST_SLOWNESS 4)
elseif(VLT_SANITIZE)
  set(VLT_TEST_SLOWNESS 4)
endif()
if(VLT_SANITIZE MATCHES "thread")
  # The sanitizer's shadow memory does not fit beside a widely randomised address space.
  find_program(VLT_SETARCH setarch REQUIRED)
  execute_process(COMMAND ${VLT_SETARCH} -R true RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
  if(result EQUAL 0)
    set(VLT_TEST_LAUNCHER ${VLT_SETARCH} -R)
  endif()
endif()

# A build for another CPU architecture. Tests exchange events with its programs.
set(VLT_PEER_BUILD "" CACHE PATH "Build directory of the powerpc preset, for tests that mix CPU architectures")
if(VLT_PEER_BUILD)
  find_program(VLT_PEER_EMULATOR NAMES qemu-ppc-static qemu-ppc REQUIRED)
endif()
