# SPDX-License-Identifier: Apache-2.0
# The manual pages and the completion of bash, which the built program itself tells (script/manual).
find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(SCDOC scdoc REQUIRED)
file(GLOB KELMTROVA_MANUAL_SOURCES CONFIGURE_DEPENDS docs/man/*.scd include/kelmtrova/*.h examples/*.c)
set(completion ${PROJECT_BINARY_DIR}/completions/kelmtrova)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/made ${completion}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/man
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/completions
  COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib
    ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/script/manual ${PROJECT_BINARY_DIR}/man $<TARGET_FILE:kelmtrova_program>
  COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib
    $<TARGET_FILE:kelmtrova_program> completion bash > ${completion}
  COMMAND ${CMAKE_COMMAND} -E touch ${PROJECT_BINARY_DIR}/man/made
  DEPENDS kelmtrova_program script/manual ${KELMTROVA_MANUAL_SOURCES}
  COMMENT "Manual pages and completion"
  VERBATIM)
add_custom_target(manual ALL DEPENDS ${PROJECT_BINARY_DIR}/man/made)
install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} PATTERN made EXCLUDE)
install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
