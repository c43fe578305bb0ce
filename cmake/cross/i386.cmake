# 32-bit little-endian, run by this machine. Computes with the x87 unit, as the oldest such CPUs do.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vlt_cross(i386 i686-linux-gnu 32 LITTLE)
