# Functions that create the targets of the folders. Each folder lists its own sources.

include(CMakePackageConfigHelpers)
find_package(Threads REQUIRED)
string(TOUPPER "${CMAKE_BUILD_TYPE}" VLT_BUILD_TYPE)

# Warnings are for our own code only: GoogleTest is built without them.
add_library(vlt_warnings INTERFACE)
target_compile_options(vlt_warnings INTERFACE -Wall -Wextra $<$<BOOL:${VLT_WERROR}>:-Werror>)

# A 32-bit host without 64-bit atomic instructions takes them from a library.
set(VLT_ATOMIC_LIBRARY "")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "powerpc")
  set(VLT_ATOMIC_LIBRARY atomic)
endif()

# A cross build exists for its word size and byte order. With a compiler for another kind of CPU its
# tests would pass without testing that.
if(VLT_CROSS_BITS)
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles("
    static_assert(sizeof(void*) * 8 == ${VLT_CROSS_BITS});
    static_assert(__BYTE_ORDER__ == __ORDER_${VLT_CROSS_ORDER}_ENDIAN__);
    int main() { return 0; }" VLT_IS_EXPECTED_CPU)
  if(NOT VLT_IS_EXPECTED_CPU)
    message(FATAL_ERROR "${CMAKE_CXX_COMPILER} does not compile for a ${VLT_CROSS_BITS}-bit CPU "
      "of ${VLT_CROSS_ORDER} byte order")
  endif()
endif()

# vlt_add_library(NAME [SOURCES ...] [LIBS ...])
# The static library of one folder. LIBS are the folders that it may include.
function(vlt_add_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${arg_LIBS} PRIVATE vlt_warnings)
  set_target_properties(${name} PROPERTIES VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# vlt_host_room(NAME SOURCES ... [USES rooms ...])
# One room of platform/host: the static library vlt_host_NAME, linked against the rooms that it
# names. If tests are built, a program links the whole room with those rooms alone, so that an
# upward call does not link, even one through a platform interface. The shared library exports of
# it what the headers of platform/include declare.
function(vlt_host_room name)
  cmake_parse_arguments(arg "" "" "SOURCES;USES" ${ARGN})
  set(room vlt_host_${name})
  list(TRANSFORM arg_USES PREPEND vlt_host_ OUTPUT_VARIABLE used)
  vlt_add_library(${room} SOURCES ${arg_SOURCES} LIBS ${used} vlt_platform_interfaces)
  set_target_properties(${room} PROPERTIES CXX_VISIBILITY_PRESET hidden)
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
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS})
  vlt_own_program(${name})
  install(TARGETS ${name} RUNTIME DESTINATION ${arg_INSTALL_TO})
endfunction()

# vlt_own_program(NAME)
# How the programs of this project are compiled and linked.
function(vlt_own_program name)
  target_link_libraries(${name} PRIVATE vlt_warnings)
  if(NOT VLT_SANITIZE)
    # Binding the symbols of the shared C++ library at each start takes longer than all that a
    # program does before its port is claimed. Of the static library it contains only what it uses.
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc LINKER:--gc-sections
      LINKER:--as-needed)
    set_target_properties(${name} PROPERTIES VLT_HAS_STATIC_RUNTIME ON)
  endif()
endfunction()

# The static C++ library names functions of the mathematics library in parts that no program keeps.
# Resolving them in libm.a spares each start the loading of the shared one, a tenth of its time. The
# lowest room links this, so that it comes after all the libraries of the tree.
add_library(vlt_static_runtime INTERFACE)
target_link_libraries(vlt_static_runtime INTERFACE
  "$<$<BOOL:$<TARGET_PROPERTY:VLT_HAS_STATIC_RUNTIME>>:-l:libstdc++.a;-l:libm.a>")

# The number in the shared library's name (libvlt.so.1). It grows when programs that are linked
# against the library no longer work with it.
set(VLT_SOVERSION 1)

# vlt_add_merged_library(NAME STATIC|SHARED OBJECTS...)
# One library of the objects of several folders, installed as libvlt and exported as vlt::NAME.
function(vlt_add_merged_library name kind)
  add_library(${name} ${kind} ${ARGN})
  add_library(vlt::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME vlt LINKER_LANGUAGE CXX
    VERSION ${VLT_SOVERSION}.${PROJECT_VERSION} SOVERSION ${VLT_SOVERSION})
  set(installed ${CMAKE_INSTALL_INCLUDEDIR}/vlt)
  target_include_directories(${name} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/include>
    $<INSTALL_INTERFACE:${installed}> $<INSTALL_INTERFACE:${installed}/platform/include>)
  target_compile_features(${name} INTERFACE cxx_std_20)
  target_link_libraries(${name} PUBLIC Threads::Threads ${VLT_ATOMIC_LIBRARY})
  if(kind STREQUAL "SHARED")
    set(exports ${PROJECT_SOURCE_DIR}/cmake/libvlt.map)
    target_link_options(${name} PRIVATE LINKER:--version-script=${exports})
    if(NOT VLT_SANITIZE)
      target_link_options(${name} PRIVATE LINKER:-z,defs)
    endif()
    set_target_properties(${name} PROPERTIES LINK_DEPENDS ${exports})
  elseif("${CMAKE_CXX_FLAGS_${VLT_BUILD_TYPE}}" MATCHES "-ffat-lto-objects")
    # Programs of other projects are linked with the machine code. What other compilers cannot read
    # is five times as large.
    add_custom_command(TARGET ${name} POST_BUILD VERBATIM
      COMMAND ${CMAKE_OBJCOPY} --wildcard --remove-section=.gnu.lto_*
        --remove-section=.gnu.debuglto_* --strip-symbol=__gnu_lto_* $<TARGET_FILE:${name}>)
  endif()
  install(TARGETS ${name} EXPORT vltTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

# vlt_install_headers(FOLDERS...)
# The headers that users of the library include, below one folder, so that a program is compiled
# with -Iinclude/vlt -Iinclude/vlt/platform/include. platform/host is private. So is syslog.h, which
# replaces a function of the C library.
function(vlt_install_headers)
  set(target ${CMAKE_INSTALL_INCLUDEDIR}/vlt)
  foreach(folder IN LISTS ARGN)
    if(folder STREQUAL "platform")
      set(folder platform/include)
    endif()
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}/ DESTINATION ${target}/${folder}
      FILES_MATCHING PATTERN *.h PATTERN syslog.h EXCLUDE)
  endforeach()
endfunction()

# vlt_install_package_files()
# What find_package(vlt) and pkg-config read. All paths in these files are relative to their own.
function(vlt_install_package_files)
  set(package ${CMAKE_INSTALL_LIBDIR}/cmake/vlt)
  set(made ${PROJECT_BINARY_DIR}/package)
  configure_package_config_file(cmake/vltConfig.cmake.in ${made}/vltConfig.cmake
    INSTALL_DESTINATION ${package})
  write_basic_package_version_file(${made}/vltConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(EXPORT vltTargets NAMESPACE vlt:: DESTINATION ${package})
  install(FILES ${made}/vltConfig.cmake ${made}/vltConfigVersion.cmake cmake/vlt_application.cmake
    cmake/Info.plist.in DESTINATION ${package})

  file(RELATIVE_PATH vlt_pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  set(vlt_pc_libraries " -pthread")
  if(VLT_ATOMIC_LIBRARY)
    string(APPEND vlt_pc_libraries " -l${VLT_ATOMIC_LIBRARY}")
  endif()
  configure_file(cmake/vlt.pc.in ${made}/vlt.pc @ONLY)
  install(FILES ${made}/vlt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
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

# Builds for other kinds of CPU. Tests exchange events with their programs.
set(VLT_PEER_BUILDS "" CACHE STRING
  "Build directories of presets for other kinds of CPU, for tests that mix kinds")
