# Cross build for 32-bit ARM hard-float Linux (Debian armhf: ARMv7-A,
# VFPv3-D16, no NEON), run under qemu-arm.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DKVAEC_GTEST_FROM_SOURCE=ON -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF
#
# Compiler: Debian's arm-linux-gnueabihf-g++ when it is installed, otherwise
# clang with an armhf target over Debian's armhf cross libraries
# (libc6-dev-armhf-cross, libstdc++-12-dev-armhf-cross,
# libgcc-12-dev-armhf-cross, binutils-arm-linux-gnueabihf). On amd64 the
# gcc cross compiler and gcc-multilib (the 32-bit x86 build) cannot be
# installed together, so CI uses clang. Force one with
# -DKVAEC_ARMHF_COMPILER=gcc or =clang.
#
# ctest runs every test binary through qemu-arm (CMAKE_CROSSCOMPILING_EMULATOR).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KVAEC_ARMHF_TRIPLE arm-linux-gnueabihf)
set(KVAEC_ARMHF_SYSROOT /usr/${KVAEC_ARMHF_TRIPLE})

if(NOT KVAEC_ARMHF_COMPILER)
  find_program(KVAEC_ARMHF_GXX ${KVAEC_ARMHF_TRIPLE}-g++)
  if(KVAEC_ARMHF_GXX)
    set(KVAEC_ARMHF_COMPILER gcc)
  else()
    set(KVAEC_ARMHF_COMPILER clang)
  endif()
endif()
set(KVAEC_ARMHF_COMPILER ${KVAEC_ARMHF_COMPILER} CACHE STRING "gcc or clang" FORCE)

# The Debian armhf baseline, spelled out so both compilers agree.
set(KVAEC_ARMHF_FLAGS "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")

if(KVAEC_ARMHF_COMPILER STREQUAL gcc)
  set(CMAKE_C_COMPILER ${KVAEC_ARMHF_TRIPLE}-gcc)
  set(CMAKE_CXX_COMPILER ${KVAEC_ARMHF_TRIPLE}-g++)
else()
  set(CMAKE_C_COMPILER clang)
  set(CMAKE_CXX_COMPILER clang++)
  set(CMAKE_C_COMPILER_TARGET ${KVAEC_ARMHF_TRIPLE})
  set(CMAKE_CXX_COMPILER_TARGET ${KVAEC_ARMHF_TRIPLE})
  # Link with the cross binutils' ld (clang finds it by the triple).
endif()
set(CMAKE_C_FLAGS_INIT "${KVAEC_ARMHF_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${KVAEC_ARMHF_FLAGS}")

set(CMAKE_FIND_ROOT_PATH ${KVAEC_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${KVAEC_ARMHF_SYSROOT})
