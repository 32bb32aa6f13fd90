# Shared part of the Debian cross toolchain files (aarch64-linux-gnu.cmake,
# arm-linux-gnueabihf.cmake): the cross compilers of g++-<triple>, a target
# sysroot of Debian packages (scripts/cross-test.sh builds one), and the
# target's programs run through qemu-user-static.
#
# QVR_SYSROOT names the sysroot: a cache variable (-DQVR_SYSROOT=...) or the
# environment variable of the same name.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${QVR_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QVR_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QVR_CROSS_TRIPLE})

if(NOT QVR_SYSROOT AND DEFINED ENV{QVR_SYSROOT})
  set(QVR_SYSROOT "$ENV{QVR_SYSROOT}")
endif()
if(NOT QVR_SYSROOT OR NOT IS_DIRECTORY "${QVR_SYSROOT}/usr/include")
  message(FATAL_ERROR "QVR_SYSROOT must name a ${QVR_CROSS_TRIPLE} sysroot "
                      "(scripts/cross-test.sh builds one); got '${QVR_SYSROOT}'")
endif()
set(QVR_SYSROOT "${QVR_SYSROOT}" CACHE PATH "Target sysroot")
# try_compile projects read this file again: hand them the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QVR_SYSROOT)

set(CMAKE_SYSROOT "${QVR_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${QVR_SYSROOT}")
# Programs the build runs (protoc) are the host's; libraries, headers and
# package files are the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the target's .pc files and prefixes their paths.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${QVR_SYSROOT}/usr/lib/${QVR_CROSS_TRIPLE}/pkgconfig:${QVR_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QVR_SYSROOT}")

# Target programs (tests, build-time generators) run under user-mode qemu,
# with the sysroot as the root of the target's own loader and libraries.
find_program(QVR_QEMU qemu-${QVR_QEMU_ARCH}-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${QVR_QEMU};-L;${QVR_SYSROOT}")
