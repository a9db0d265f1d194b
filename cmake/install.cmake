# SPDX-License-Identifier: Apache-2.0
# libkelmtrova, its headers, the pkg-config files and the CMake package; beside the library the open device manager and
# middleware, unless a maker's own are there.
#
# The CMake package gives kelmtrova::kelmtrova, the library, which needs the device manager libkelmkmgr.so at run time,
# and kelmtrova::simulator, the open device manager, for programs that call it themselves.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelmtrova)
set(packages kelmtrova)

install(TARGETS kelmtrova EXPORT kelmtrova FILE_SET HEADERS)
install(TARGETS kelmtrova_trace)
if(KELMTROVA_DEVICE_MANAGER)
  set_target_properties(kelmkmgr PROPERTIES EXPORT_NAME simulator)
  target_include_directories(kelmkmgr INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  install(TARGETS kelmkmgr EXPORT kelmtrova)
  set(KELMTROVA_MIDDLEWARE_DIR ${CMAKE_INSTALL_LIBDIR} CACHE STRING "Where the open middleware is installed")
  install(TARGETS kelmpkcs LIBRARY DESTINATION ${KELMTROVA_MIDDLEWARE_DIR})
  list(APPEND packages kelmtrova-simulator)
endif()
if(KELMTROVA_PROGRAM)
  install(TARGETS kelmtrova_program)
endif()
install(EXPORT kelmtrova NAMESPACE kelmtrova:: FILE kelmtrova-config.cmake DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelmtrova-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelmtrova-config-version.cmake DESTINATION ${package_dir})

# What the pkg-config files name is found from where they lie, so that an installation can be moved.
file(RELATIVE_PATH KELM_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(package ${packages})
  configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
