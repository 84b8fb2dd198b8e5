# Toolchain for 32-bit ARM (Debian's armhf): Debian's cross compiler and C library, OpenSSL and GoogleTest from the
# sysroot that tools/armhf-sysroot makes, and qemu-arm to run what was built.
#
# TLSC_ARMHF_SYSROOT (of CMake, or in the environment): a sysroot elsewhere than in build/armhf-sysroot.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
if(DEFINED ENV{TLSC_ARMHF_SYSROOT})
    set(sysroot $ENV{TLSC_ARMHF_SYSROOT})
endif()
set(TLSC_ARMHF_SYSROOT ${sysroot} CACHE PATH "What tools/armhf-sysroot has made")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TLSC_ARMHF_SYSROOT)
if(NOT EXISTS ${TLSC_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/libssl.so)
    message(FATAL_ERROR "${TLSC_ARMHF_SYSROOT} holds no armhf OpenSSL: run tools/armhf-sysroot")
endif()

find_program(TLSC_ARMHF_CXX arm-linux-gnueabihf-g++)
find_program(TLSC_ARMHF_QEMU NAMES qemu-arm qemu-arm-static)
if(NOT TLSC_ARMHF_CXX)
    message(FATAL_ERROR "no arm-linux-gnueabihf-g++: install g++-arm-linux-gnueabihf")
endif()
if(NOT TLSC_ARMHF_QEMU)
    message(FATAL_ERROR "no qemu-arm: install qemu-user")
endif()
set(CMAKE_CXX_COMPILER ${TLSC_ARMHF_CXX})

# Not as --sysroot: the C library lies with the compiler. The second directory holds OpenSSL's configuration.
set(CMAKE_FIND_ROOT_PATH ${TLSC_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CXX_FLAGS_INIT "-isystem ${TLSC_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
# Where the linker finds what libraries themselves need.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TLSC_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")

# What the build makes is fit for a device: it names no directory of this machine. The emulator looks into the sysroot
# before it looks into the machine's root, and finds loader, C library and OpenSSL there.
set(CMAKE_SKIP_RPATH TRUE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TLSC_ARMHF_QEMU} -L ${TLSC_ARMHF_SYSROOT})

# The programs are built for the architecture's baseline, which divides in software, and that answers a division by zero
# with a signal. The tests' copy of the daemon is built for a core that divides in hardware and gets 0: it must raise
# the signal itself.
set(TLSC_TEST_OPTIONS -march=armv7ve+fp)
