# Cross build for the appliance: 32-bit MIPS little-endian, Debian's
# mipsel-linux-gnu cross compiler, libraries from a sysroot that
# scripts/mipsel-sysroot unpacks from Debian's mipsel packages, and tests run
# under qemu-mipsel.
#
#   scripts/mipsel-sysroot build-mipsel/sysroot
#   cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE=cmake/mipsel-linux-gnu.cmake
#
# MIPSEL_SYSROOT (cache or environment) picks another sysroot; the default is
# <build dir>/sysroot. It must be an absolute path outside /tmp and /run, which
# the end-to-end tests' mount namespace hides.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)

# Another mipsel toolchain (an appliance vendor's) is picked by its prefix,
# e.g. -DMIPSEL_CROSS_PREFIX=/opt/appliance/bin/mipsel-linux-uclibc-
set(MIPSEL_CROSS_PREFIX "mipsel-linux-gnu-" CACHE STRING "Cross compiler prefix")
set(CMAKE_C_COMPILER ${MIPSEL_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${MIPSEL_CROSS_PREFIX}g++)

# try_compile projects read this file again with another binary dir, so the
# chosen sysroot is handed to them rather than recomputed.
if(NOT MIPSEL_SYSROOT)
  if(DEFINED ENV{MIPSEL_SYSROOT})
    set(MIPSEL_SYSROOT "$ENV{MIPSEL_SYSROOT}")
  else()
    set(MIPSEL_SYSROOT "${CMAKE_BINARY_DIR}/sysroot")
  endif()
endif()
get_filename_component(MIPSEL_SYSROOT "${MIPSEL_SYSROOT}" ABSOLUTE)
set(MIPSEL_SYSROOT "${MIPSEL_SYSROOT}" CACHE PATH "Sysroot with the target's libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MIPSEL_SYSROOT MIPSEL_CROSS_PREFIX)
if(NOT EXISTS "${MIPSEL_SYSROOT}/usr/include/stdio.h")
  message(FATAL_ERROR "No mipsel sysroot at ${MIPSEL_SYSROOT}: run scripts/mipsel-sysroot ${MIPSEL_SYSROOT}")
endif()

set(CMAKE_SYSROOT "${MIPSEL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${MIPSEL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The host's pkg-config, reading only the sysroot's .pc files and prefixing
# their -I/-L paths with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MIPSEL_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${MIPSEL_SYSROOT}/usr/lib/mipsel-linux-gnu/pkgconfig:${MIPSEL_SYSROOT}/usr/lib/pkgconfig:${MIPSEL_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Every program built here that CMake or CTest runs (test discovery, unit and
# end-to-end tests) goes through the emulator. -L makes the guest's absolute
# paths resolve inside the sysroot first: the loader /lib/ld.so.1, the shared
# libraries, and glibc's charset modules under /usr/lib/mipsel-linux-gnu/gconv,
# so iconv needs no GCONV_PATH here. (GCONV_PATH would have to reach the guest
# alone, through qemu's -E, since host processes share the environment.)
find_program(MIPSEL_QEMU NAMES qemu-mipsel qemu-mipsel-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${MIPSEL_QEMU};-L;${MIPSEL_SYSROOT}")
