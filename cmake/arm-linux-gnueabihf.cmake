# 32-bit ARM (armhf) with Debian's g++-arm-linux-gnueabihf; see linux-gnu-cross.cmake.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(QVR_CROSS_TRIPLE arm-linux-gnueabihf)
set(QVR_QEMU_ARCH arm)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu-cross.cmake)
