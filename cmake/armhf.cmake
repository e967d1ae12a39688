# SPDX-License-Identifier: MIT
# Cross compilation for 32-bit ARM (hard float) with Debian's cross compiler; OpenSSL and GoogleTest come from the
# sysroot that scripts/armhf-sysroot.sh unpacks, everything else from the compiler's own libraries. The tests run under
# an emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build-sysroot)
cmake_path(NORMAL_PATH ARMHF_SYSROOT)
set(CMAKE_C_FLAGS_INIT "-isystem ${ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
set(CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT})
set(CMAKE_FIND_ROOT_PATH ${ARMHF_SYSROOT} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ARMHF_SYSROOT})
set(GTest_DIR ${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/cmake/GTest)
set(CMAKE_CROSSCOMPILING_EMULATOR
  qemu-arm-static -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH=${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf)
