# 32-bit big-endian: the host whose word size and byte order differ most from the usual one.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vlt_cross(powerpc powerpc-linux-gnu 32 BIG qemu-ppc-static qemu-ppc)
