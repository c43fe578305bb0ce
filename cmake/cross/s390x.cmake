# 64-bit big-endian.
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
vlt_cross(s390x s390x-linux-gnu 64 BIG qemu-s390x-static qemu-s390x)
