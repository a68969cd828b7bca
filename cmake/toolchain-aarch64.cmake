# Cross build for 64-bit ARM Linux (Debian arm64: ARMv8-A, AdvSIMD/NEON
# always present), run under qemu-aarch64. Builds the NEON kernels, which
# are bit-identical to the scalar references (AArch64 NEON handles
# subnormal numbers as IEEE requires, unlike 32-bit ARMv7 NEON).
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake \
#         -DKVAEC_GTEST_FROM_SOURCE=ON -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF
#
# Compiler: Debian's aarch64-linux-gnu-g++ when it is installed, otherwise
# clang with an aarch64 target over Debian's arm64 cross libraries
# (libc6-dev-arm64-cross, libstdc++-12-dev-arm64-cross,
# libgcc-12-dev-arm64-cross, binutils-aarch64-linux-gnu). On amd64 the gcc
# cross compiler and gcc-multilib cannot be installed together, so CI uses
# clang. Force one with -DKVAEC_AARCH64_COMPILER=gcc or =clang.
#
# ctest runs every test binary through qemu-aarch64 (CMAKE_CROSSCOMPILING_EMULATOR).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KVAEC_AARCH64_TRIPLE aarch64-linux-gnu)
set(KVAEC_AARCH64_SYSROOT /usr/${KVAEC_AARCH64_TRIPLE})

if(NOT KVAEC_AARCH64_COMPILER)
  find_program(KVAEC_AARCH64_GXX ${KVAEC_AARCH64_TRIPLE}-g++)
  if(KVAEC_AARCH64_GXX)
    set(KVAEC_AARCH64_COMPILER gcc)
  else()
    set(KVAEC_AARCH64_COMPILER clang)
  endif()
endif()
set(KVAEC_AARCH64_COMPILER ${KVAEC_AARCH64_COMPILER} CACHE STRING "gcc or clang" FORCE)

if(KVAEC_AARCH64_COMPILER STREQUAL gcc)
  set(CMAKE_C_COMPILER ${KVAEC_AARCH64_TRIPLE}-gcc)
  set(CMAKE_CXX_COMPILER ${KVAEC_AARCH64_TRIPLE}-g++)
else()
  set(CMAKE_C_COMPILER clang)
  set(CMAKE_CXX_COMPILER clang++)
  set(CMAKE_C_COMPILER_TARGET ${KVAEC_AARCH64_TRIPLE})
  set(CMAKE_CXX_COMPILER_TARGET ${KVAEC_AARCH64_TRIPLE})
endif()
# The baseline of Debian arm64, spelled out so both compilers agree.
set(CMAKE_C_FLAGS_INIT "-march=armv8-a")
set(CMAKE_CXX_FLAGS_INIT "-march=armv8-a")

set(CMAKE_FIND_ROOT_PATH ${KVAEC_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${KVAEC_AARCH64_SYSROOT})
