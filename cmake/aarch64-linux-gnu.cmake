# Cross-compiling for the camera (AArch64 Linux) with Debian's cross toolchain
# (g++-aarch64-linux-gnu) and Debian's arm64 multiarch libraries (libcjson-dev:arm64 ...,
# see scripts/deps.sh --arm64). Used by the arm64 presets in CMakePresets.json.
#
# A camera vendor's own SDK drops in through the usual variables:
#   -DCMAKE_SYSROOT=/path/to/sysroot              libraries, headers and .pc files from there
#   -DKORVEL_CROSS_PREFIX=/opt/sdk/bin/aarch64-vendor-linux-gnu-   compiler name prefix
# Tests run under qemu-aarch64 (CMAKE_CROSSCOMPILING_EMULATOR). With Debian's multiarch
# libraries it runs with no -L: the arm64 loader and libraries are installed in the host's
# /lib/ld-linux-aarch64.so.1 and /usr/lib/aarch64-linux-gnu. (-L /usr/aarch64-linux-gnu
# mixes the cross sysroot's C library with the multiarch one and hangs at the first
# pthread_create.) With a vendor sysroot, qemu gets -L <sysroot>.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KORVEL_CROSS_PREFIX "aarch64-linux-gnu-" CACHE STRING "Prefix of the cross compiler's names")
set(CMAKE_C_COMPILER "${KORVEL_CROSS_PREFIX}gcc")
set(CMAKE_CXX_COMPILER "${KORVEL_CROSS_PREFIX}g++")

if(CMAKE_SYSROOT)
    # A self-contained sysroot: look for libraries, headers and packages only there.
    set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
    set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
    set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
    set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
    set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
    set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
    set(korvel_qemu_args -L "${CMAKE_SYSROOT}")
else()
    # Debian multiarch: arm64 libraries beside the host's, under .../aarch64-linux-gnu.
    set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
    set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
    set(korvel_qemu_args "")
endif()

if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    find_program(KORVEL_QEMU_AARCH64 qemu-aarch64)
    if(KORVEL_QEMU_AARCH64)
        set(CMAKE_CROSSCOMPILING_EMULATOR "${KORVEL_QEMU_AARCH64};${korvel_qemu_args}")
    endif()
endif()
