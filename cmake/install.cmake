# Installation for integrators: the driver, its runtime-side headers, the
# tools, a pkg-config file and a CMake package (find_package(kv3000 CONFIG)
# gives kv3000::kv_3000). Three components, one Debian package each
# (cmake/package.cmake): Runtime (the driver), Development, Tools.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KV_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kv3000)
set(KV_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kv3000)

# The runtime-side header passes QString, QByteArray and QList, so whoever
# includes it compiles and links against Qt Core too.
target_link_libraries(kv_3000 INTERFACE Qt5::Core)
target_include_directories(kv_3000 INTERFACE $<INSTALL_INTERFACE:${KV_INSTALL_INCLUDEDIR}>)

install(TARGETS kv_3000 EXPORT kv3000Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(FILES
  ${PROJECT_SOURCE_DIR}/include/kv3000_intf.h
  ${PROJECT_SOURCE_DIR}/include/kv3000_records.h
  DESTINATION ${KV_INSTALL_INCLUDEDIR} COMPONENT Development)

# The host opens the driver at run time; let it find the installed one. It
# looks in ../<libdir> itself; the run path is for other prefixes only (a
# system prefix needs none, and Debian forbids one).
foreach(tool kv3000-host kv3000-sim)
  if(TARGET ${tool})
    if(NOT CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
      set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    endif()
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  endif()
endforeach()

install(EXPORT kv3000Targets NAMESPACE kv3000:: FILE kv3000Targets.cmake
  DESTINATION ${KV_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kv3000Config.cmake.in
  ${PROJECT_BINARY_DIR}/kv3000Config.cmake INSTALL_DESTINATION ${KV_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kv3000ConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kv3000Config.cmake ${PROJECT_BINARY_DIR}/kv3000ConfigVersion.cmake
  DESTINATION ${KV_INSTALL_CMAKEDIR} COMPONENT Development)

# The .pc file is written at install time so that it names the prefix really
# installed to (cmake --install --prefix), not the one configured.
install(CODE "
  set(KV_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(KV_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(KV_PC_INCLUDEDIR \"${KV_INSTALL_INCLUDEDIR}\")
  foreach(dir KV_PC_LIBDIR KV_PC_INCLUDEDIR)
    if(NOT IS_ABSOLUTE \"\${\${dir}}\")
      set(\${dir} \"\\\${prefix}/\${\${dir}}\")
    endif()
  endforeach()
  set(KV_PC_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/kv3000.pc.in\" \"${PROJECT_BINARY_DIR}/kv3000.pc\" @ONLY)
" COMPONENT Development)
install(FILES ${PROJECT_BINARY_DIR}/kv3000.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
