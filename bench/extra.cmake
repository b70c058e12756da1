# End-to-end benchmark programs (run by scripts/bench.sh, not by Google
# Benchmark): a KV-3000 stand-in server, the runtime loop with and without the
# driver, a raw ping-pong, the libmodbus peer when available, and peak memory.
add_executable(e2e_kvserver ${CMAKE_CURRENT_SOURCE_DIR}/e2e_kvserver.cpp)
target_include_directories(e2e_kvserver PRIVATE ${PROJECT_SOURCE_DIR}/include)

add_executable(e2e_kvloop ${CMAKE_CURRENT_SOURCE_DIR}/e2e_kvloop.cpp)
target_include_directories(e2e_kvloop PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(e2e_kvloop PRIVATE Qt5::Core ${CMAKE_DL_LIBS})
add_dependencies(e2e_kvloop kv_3000)

add_executable(e2e_pingpong ${CMAKE_CURRENT_SOURCE_DIR}/e2e_pingpong.cpp)

add_executable(e2e_rss ${CMAKE_CURRENT_SOURCE_DIR}/e2e_rss.cpp)
target_link_libraries(e2e_rss PRIVATE kv3000_core)

find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(LIBMODBUS QUIET IMPORTED_TARGET libmodbus)
endif()
if(LIBMODBUS_FOUND)
  add_executable(e2e_modbus ${CMAKE_CURRENT_SOURCE_DIR}/e2e_modbus.cpp)
  target_link_libraries(e2e_modbus PRIVATE PkgConfig::LIBMODBUS)
else()
  message(STATUS "libmodbus not found: e2e_modbus is not built")
endif()
