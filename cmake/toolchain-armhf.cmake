# Cross build for the ARM panels (32-bit, hard float) with Debian's
# arm-linux-gnueabihf toolchain. Qt 5 Core and GoogleTest for armhf come from
# a directory of unpacked Debian armhf packages (scripts/armhf.sh makes it),
# so nothing of the foreign architecture is installed into the build machine
# and its native Qt stays untouched. Tests run under qemu-arm with that
# directory as the guest's root for libraries.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DKV_ARMHF_SYSROOT=$PWD/build-armhf/sysroot
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT KV_ARMHF_SYSROOT AND DEFINED ENV{KV_ARMHF_SYSROOT})
  set(KV_ARMHF_SYSROOT "$ENV{KV_ARMHF_SYSROOT}")
endif()
if(NOT KV_ARMHF_SYSROOT)
  set(KV_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot")
endif()
get_filename_component(KV_ARMHF_SYSROOT "${KV_ARMHF_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${KV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/cmake/Qt5Core")
  message(FATAL_ERROR "no armhf Qt 5 Core in ${KV_ARMHF_SYSROOT}: run scripts/armhf.sh, "
                      "or pass -DKV_ARMHF_SYSROOT=<unpacked armhf packages>")
endif()
# try_compile projects read this file again and need the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KV_ARMHF_SYSROOT)

# Headers and libraries of the target come from the unpacked packages (and the
# toolchain's own libc); programs run during the build are the host's.
set(CMAKE_FIND_ROOT_PATH "${KV_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# libQt5Core.so pulls in ICU, PCRE2, GLib, ...: the linker has to find them
# in the unpacked tree to check that every symbol resolves.
set(_kv_armhf_rpath_link
  "-Wl,-rpath-link,${KV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf:${KV_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_kv_armhf_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_kv_armhf_rpath_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_kv_armhf_rpath_link}")

# Debian keeps some headers in the multiarch directory, which only a native
# compiler searches by itself (OpenSSL's opensslconf.h, included by cpp-httplib).
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${KV_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${KV_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")

# pkg-config (cpp-httplib, libpcap) reads the target's .pc files, and the
# paths it gives lie in the unpacked tree.
set(ENV{PKG_CONFIG_LIBDIR}
  "${KV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KV_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KV_ARMHF_SYSROOT}")

# ctest, gtest_discover_tests and the man pages run target programs through this.
find_program(KV_QEMU_ARM qemu-arm)
if(KV_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KV_QEMU_ARM};-L;${KV_ARMHF_SYSROOT}")
endif()
