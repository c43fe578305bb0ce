# 32-bit big-endian PowerPC, linked statically and run by the user-mode emulator: the host whose
# word size and byte order differ most from the usual one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
find_program(VLT_QEMU_PPC NAMES qemu-ppc-static qemu-ppc REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VLT_QEMU_PPC})
set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
