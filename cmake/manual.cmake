# SPDX-License-Identifier: Apache-2.0
# The manual pages; those of the program come from what it prints itself (script/manual).
find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(SCDOC scdoc REQUIRED)
file(GLOB KELMTROVA_MANUAL_SOURCES CONFIGURE_DEPENDS docs/man/*.scd include/kelmtrova/*.h examples/*.c examples/*.cpp)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/made
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/man
  COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib
    ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/script/manual ${PROJECT_BINARY_DIR}/man $<TARGET_FILE:kelmtrova_program>
  COMMAND ${CMAKE_COMMAND} -E touch ${PROJECT_BINARY_DIR}/man/made
  DEPENDS kelmtrova_program script/manual ${KELMTROVA_MANUAL_SOURCES}
  COMMENT "Manual pages"
  VERBATIM)
add_custom_target(manual ALL DEPENDS ${PROJECT_BINARY_DIR}/man/made)
install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} PATTERN made EXCLUDE)
