# 64-bit ARM (arm64) with Debian's g++-aarch64-linux-gnu; see linux-gnu-cross.cmake.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(QVR_CROSS_TRIPLE aarch64-linux-gnu)
set(QVR_QEMU_ARCH aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu-cross.cmake)
