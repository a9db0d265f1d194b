# SPDX-License-Identifier: Apache-2.0
# Tokens behind a real pcscd with a virtual reader, in namespaces of their own.
file(GLOB sources CONFIGURE_DEPENDS tests/readers/*_test.cpp)
kelmtrova_add_test_program(readers_test ${sources})
target_link_libraries(readers_test PRIVATE ${CMAKE_DL_LIBS})
add_test(NAME readers COMMAND ${PROJECT_SOURCE_DIR}/tests/readers/with_pcscd $<TARGET_FILE:readers_test>)
set_tests_properties(readers PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 120)
