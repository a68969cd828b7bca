# Cross-compilation for a Cortex-M4 with single-precision FPU (bare metal,
# newlib): builds the static library only.
#   cmake -S . -B build-m4 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-cortex-m4.cmake \
#         -DKVAEC_BUILD_TESTS=OFF -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF \
#         -DCMAKE_BUILD_TYPE=MinSizeRel
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-none-eabi-gcc)
set(CMAKE_CXX_COMPILER arm-none-eabi-g++)
set(CMAKE_AR arm-none-eabi-ar CACHE FILEPATH "")
set(CMAKE_RANLIB arm-none-eabi-ranlib CACHE FILEPATH "")
# No executables can be linked without a board's startup code and linker
# script: test compilations build static libraries.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(KVAEC_M4_FLAGS "-mcpu=cortex-m4 -mthumb -mfpu=fpv4-sp-d16 -mfloat-abi=hard -ffunction-sections -fdata-sections")
set(CMAKE_C_FLAGS_INIT "${KVAEC_M4_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${KVAEC_M4_FLAGS}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
