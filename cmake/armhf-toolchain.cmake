# Cross build for the unit's 32-bit ARM processor (Debian armhf, hard float).
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DLARKD_ARMHF_SYSROOT=DIR/sysroot -DLARKD_ARMHF_EMULATOR=DIR/host/usr/bin/qemu-arm-static
# with DIR as printed by scripts/armhf-sysroot.sh.
# Compiler: Debian's g++-arm-linux-gnueabihf. Libraries and headers come from
# the sysroot only; Qt's code generators are the host's, because the
# sysroot's are ARM programs. CTest runs the ARM binaries under qemu-arm-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(LARKD_ARMHF_SYSROOT "" CACHE PATH "Debian armhf sysroot (DIR/sysroot from scripts/armhf-sysroot.sh)")
if(NOT IS_DIRECTORY "${LARKD_ARMHF_SYSROOT}/usr/include")
    message(FATAL_ERROR "LARKD_ARMHF_SYSROOT='${LARKD_ARMHF_SYSROOT}' is not a sysroot; make one with scripts/armhf-sysroot.sh")
endif()
set(LARKD_ARMHF_EMULATOR qemu-arm-static CACHE FILEPATH "User-mode emulator that runs the ARM tests")
# try_compile() projects read this file again and need the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LARKD_ARMHF_SYSROOT)

set(CMAKE_SYSROOT "${LARKD_ARMHF_SYSROOT}")
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must read the sysroot's .pc files and prefix their paths with it.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

# -L gives the emulator the sysroot's dynamic loader and libraries. ARM
# programs that a test starts itself go through binfmt_misc and get the
# sysroot from QEMU_LD_PREFIX (tests/CMakeLists.txt sets it). Debian 12's own
# qemu (7.2) will not do: its clone() rejects the CLONE_PIDFD that QProcess uses.
set(CMAKE_CROSSCOMPILING_EMULATOR "${LARKD_ARMHF_EMULATOR}" -L "${CMAKE_SYSROOT}")

# Runs right after project(), before any find_package(Qt5 ...).
set(CMAKE_PROJECT_INCLUDE "${CMAKE_CURRENT_LIST_DIR}/host-qt-tools.cmake")
