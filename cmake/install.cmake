# SPDX-License-Identifier: Apache-2.0
# libkelmtrova, its headers, the pkg-config file and the CMake package; beside the library the open
# device manager and middleware.
include(CMakePackageConfigHelpers)
install(TARGETS kelmtrova EXPORT kelmtrova LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/kelmtrova/token.h include/kelmtrova/image.h include/kelmtrova/device_manager.h
              include/kelmtrova/simulator.h include/kelmtrova/trace.h include/kelmtrova/middleware.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelmtrova)
install(TARGETS kelmtrova_trace LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(KELMTROVA_DEVICE_MANAGER)
  install(TARGETS kelmkmgr kelmpkcs LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
if(KELMTROVA_PROGRAM)
  install(TARGETS kelmtrova_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# What the pkg-config files name is found from where they lie, so that an installation can be moved.
file(RELATIVE_PATH KELM_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(package kelmtrova kelmtrova-simulator)
  configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelmtrova)
configure_package_config_file(cmake/kelmtrova-config.cmake.in ${PROJECT_BINARY_DIR}/kelmtrova-config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelmtrova-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelmtrova-config.cmake ${PROJECT_BINARY_DIR}/kelmtrova-config-version.cmake
  DESTINATION ${package_dir})
