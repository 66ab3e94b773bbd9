# Cross build for 32-bit ARM (Debian armhf: ARMv7, hard float, EABI) with the
# Debian cross compiler; the tests run through qemu-arm.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake ...
# scripts/armhf.sh installs what it needs and drives the whole build.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KAM_ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${KAM_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KAM_ARMHF_TRIPLET}-g++)
# GCC notes on every function taking a 64-bit-element initializer_list that
# its ARM argument passing changed in GCC 7.1: only matters when linking with
# objects built by GCC 6 or older, which never happens here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# The cross compiler's own sysroot first, then the host's multiarch tree
# (/usr/lib/arm-linux-gnueabihf), where the Android and EGL/GLES packages of
# the armhf architecture put their libraries. Programs (python3 for the
# generator) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${KAM_ARMHF_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config must answer with the armhf .pc files, not the host's (a caller
# may name more directories, see scripts/armhf.sh).
if(NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${KAM_ARMHF_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
endif()

# try_run, gtest_discover_tests and ctest start target programs through qemu.
# With the armhf architecture enabled (the Android libraries), libc6:armhf is
# installed with its loader at /lib/ld-linux-armhf.so.3 and every armhf
# library resolves against it: qemu runs without -L. Pointing qemu at the
# cross toolchain's tree then would load that tree's loader next to the
# multiarch libc (another build of it) and crash. Without multiarch the cross
# toolchain's tree is the only armhf libc there is: -L.
# A caller may give its own (scripts/armhf.sh adds the loader's library path).
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  if(EXISTS /lib/ld-linux-armhf.so.3)
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
  else()
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/${KAM_ARMHF_TRIPLET})
  endif()
endif()
