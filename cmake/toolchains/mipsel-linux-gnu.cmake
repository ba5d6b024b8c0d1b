# Cross-compiles for 32-bit little-endian MIPS Linux with Debian's
# g++-mipsel-linux-gnu; programs built here run on the build machine through
# qemu-mipsel (tests, tools), which finds the target's C library under the
# sysroot.
#
#   cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mipsel-linux-gnu.cmake
#
# Libraries built for the target elsewhere (a static libavcodec, GoogleTest)
# are found by adding their install prefixes to CMAKE_FIND_ROOT_PATH, and
# libavcodec's pkg-config files by PKG_CONFIG_LIBDIR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)

set(MP4REC_TARGET_TRIPLE mipsel-linux-gnu)
set(MP4REC_TARGET_SYSROOT /usr/${MP4REC_TARGET_TRIPLE})
set(CMAKE_C_COMPILER ${MP4REC_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${MP4REC_TARGET_TRIPLE}-g++)

# 64-bit file offsets and times for everything built here (libraries built
# with it, such as GoogleTest, must agree with us on struct stat and time_t).
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")

list(APPEND CMAKE_FIND_ROOT_PATH ${MP4REC_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must not hand out the build machine's libraries.
if(NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
  set(ENV{PKG_CONFIG_LIBDIR}
      "${MP4REC_TARGET_SYSROOT}/lib/pkgconfig:/usr/lib/${MP4REC_TARGET_TRIPLE}/pkgconfig")
endif()

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel -L ${MP4REC_TARGET_SYSROOT})
