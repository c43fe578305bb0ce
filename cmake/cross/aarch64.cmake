# 64-bit little-endian, with weaker memory ordering than x86.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vlt_cross(aarch64 aarch64-linux-gnu 64 LITTLE qemu-aarch64-static qemu-aarch64)
