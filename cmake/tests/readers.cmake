# SPDX-License-Identifier: Apache-2.0
# Tokens behind a real pcscd with a virtual reader, in namespaces of their own.
# Sanitizers refuse RTLD_DEEPBIND, which the example of both libraries needs, and their builds are slow.
if(KELMTROVA_SANITIZE)
  return()
endif()
set(KELMTROVA_WITH_PCSCD ${PROJECT_SOURCE_DIR}/tests/readers/with_pcscd)
file(GLOB sources CONFIGURE_DEPENDS tests/readers/*_test.cpp)
if(NOT KELMTROVA_PROGRAM)
  list(FILTER sources EXCLUDE REGEX program_test)
endif()
kelmtrova_add_test_program(readers_test ${sources})
add_dependencies(readers_test kelmtrova_trace)
if(KELMTROVA_PROGRAM)
  add_dependencies(readers_test kelmtrova_program)
endif()
add_test(NAME readers COMMAND ${KELMTROVA_WITH_PCSCD} $<TARGET_FILE:readers_test>)
set_tests_properties(readers PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 180)

add_executable(both_libraries examples/both_libraries.c)
target_link_libraries(both_libraries PRIVATE kelmtrova_flags kelmtrova kelmkmgr ${CMAKE_DL_LIBS})
set_target_properties(both_libraries PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
add_dependencies(readers_test both_libraries)
