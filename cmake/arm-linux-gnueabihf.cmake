# 32-bit ARM with hardware floating point, by Debian's cross compiler. Programs run under qemu-arm.
# OVANI_ARM_SYSROOT is a directory holding the target's libsqlite3 (usr/include, usr/lib/arm-linux-gnueabihf);
# test.sh fills build/arm-sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)

set(OVANI_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot" CACHE PATH "libsqlite3 for the target")
set(CMAKE_FIND_ROOT_PATH "${OVANI_ARM_SYSROOT};/usr/arm-linux-gnueabihf")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
