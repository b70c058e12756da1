# Debian packages (scripts/package.sh, or cpack in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr): one per install component.
#   Runtime     -> libkv3000-2     the driver with its soname
#   Development -> libkv3000-dev   headers, the .so link, pkg-config file, CMake package, libkv3000(3)
#   Tools       -> kv3000-tools    kv3000-host, kv3000-sim, the Wireshark dissector, their man pages
# Depends are computed from the binaries by dpkg-shlibdeps, but for the two
# noted below. The Debian revision and the package history come from
# cmake/debian/changelog, the license from cmake/debian/copyright.
set(KV_DEB_DIR ${PROJECT_SOURCE_DIR}/cmake/debian)

file(STRINGS ${KV_DEB_DIR}/changelog _kv_top LIMIT_COUNT 1)
if(NOT _kv_top MATCHES "^kv3000 \\(([^)]+)-([^)-]+)\\)")
  message(FATAL_ERROR "cmake/debian/changelog: the first line must read 'kv3000 (VERSION-REVISION) ...'")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(WARNING "cmake/debian/changelog's latest entry is ${CMAKE_MATCH_1}, the project is "
                  "${PROJECT_VERSION}: add an entry for this version before packaging")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
set(_kv_deb_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(_kv_components Runtime Development)
if(TARGET kv3000-host AND TARGET kv3000-sim)
  list(APPEND _kv_components Tools)
endif()
set(_kv_pkg_Runtime libkv3000-2)
set(_kv_pkg_Development libkv3000-dev)
set(_kv_pkg_Tools kv3000-tools)

# Each package carries the copyright file and the changelog, compressed as
# Debian wants it (gzip -9n: no name, no time stamp).
set(_kv_changelog ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz)
add_custom_command(OUTPUT ${_kv_changelog}
  COMMAND ${CMAKE_COMMAND} -E copy ${KV_DEB_DIR}/changelog ${PROJECT_BINARY_DIR}/debian/changelog.Debian
  COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/debian/changelog.Debian
  DEPENDS ${KV_DEB_DIR}/changelog VERBATIM)
add_custom_target(kv_deb_changelog ALL DEPENDS ${_kv_changelog})
foreach(component IN LISTS _kv_components)
  install(FILES ${KV_DEB_DIR}/copyright ${_kv_changelog}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_kv_pkg_${component}} COMPONENT ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${_kv_pkg_${component}})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kv3000)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL ${_kv_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Seed 9effb196 maintainers <maintainers@users.noreply.c-seed-9effb196.example>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_CROSSCOMPILING AND KV_ARMHF_SYSROOT)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  # dpkg-shlibdeps finds the target's libraries in the unpacked sysroot.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${KV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf ${KV_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
# The shlibs file tells dpkg-shlibdeps of packages built against the driver
# what to depend on; the trigger runs ldconfig once the package is unpacked.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${KV_DEB_DIR}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "KV-3000 communication driver for HMI runtimes
libkv_3000.so is the driver that an HMI runtime loads to exchange data with a
KV-3000 series controller over a serial line or TCP. The runtime owns the
link; the driver builds the request frames, checks the replies, merges
monitored addresses into few read blocks, and keeps a data area that shows
written values at once and reports changes through a callback.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The header passes Qt types, so whoever builds against it needs Qt Core's
# headers too (the pkg-config file and the CMake package require Qt5Core).
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libkv3000-2 (= ${_kv_deb_version}), qtbase5-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "KV-3000 communication driver for HMI runtimes - development files
The runtime-side headers of libkv_3000.so (kv3000_intf.h, kv3000_records.h),
the link to the library, the pkg-config file kv3000 and the CMake package
kv3000 (find_package(kv3000 CONFIG), target kv3000::kv_3000), and the
integration guide libkv3000(3).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
# kv3000-host opens the driver with dlopen, which dpkg-shlibdeps cannot see.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkv3000-2 (= ${_kv_deb_version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "tshark | wireshark")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "KV-3000 reference host, controller simulator and Wireshark dissector
kv3000-host plays the HMI runtime around libkv_3000.so: it watches, reads and
writes controller registers over TCP or a serial line, transfers recipes,
serves a web HMI, and records what goes over the wire. kv3000-sim answers
like a KV-3000 controller, with injected faults or replaying a recorded
capture. The Lua dissector lets Wireshark and tshark decode the link.")

include(CPack)
