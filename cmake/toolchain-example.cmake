# An example of a toolchain file, for Debian's cross compilers and a sysroot of the same kind:
#   cmake --preset device --toolchain cmake/toolchain-example.cmake -DTRIPLET=aarch64-linux-gnu -DSYSROOT=DIR
# For a device, put its compiler and the flags that it needs here.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TRIPLET SYSROOT)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR ${TRIPLET})
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSROOT ${SYSROOT})
set(CMAKE_CXX_COMPILER ${TRIPLET}-g++)

# With this, programs for the device run on the build machine, such as the one that makes a manual.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR}-static -L ${SYSROOT})
