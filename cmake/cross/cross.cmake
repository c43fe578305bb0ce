# vlt_cross(CPU PREFIX BITS ORDER EMULATOR...)
# Sets up a build for another kind of CPU: the compiler PREFIX-g++, static programs, so that none of
# that CPU's libraries have to be installed, and the first of the EMULATORs that is found. Without
# EMULATOR this machine runs the programs itself. BITS and ORDER (LITTLE or BIG) are what the kind
# is tested for; the build fails if the compiler makes something else.
macro(vlt_cross cpu prefix bits order)
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR ${cpu})
  set(CMAKE_CXX_COMPILER ${prefix}-g++)
  set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
  if("${ARGC}" GREATER 4)
    find_program(VLT_EMULATOR NAMES ${ARGN} REQUIRED)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VLT_EMULATOR})
  endif()
  set(CMAKE_FIND_ROOT_PATH /usr/${prefix})
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(VLT_CROSS_BITS ${bits})
  set(VLT_CROSS_ORDER ${order})
endmacro()
