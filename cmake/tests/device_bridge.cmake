# SPDX-License-Identifier: Apache-2.0
# Small middlewares for the test of the bridge.
function(kelmtrova_add_test_middleware name)
  add_library(${name} MODULE tests/link/middleware.c)
  target_compile_definitions(${name} PRIVATE ${ARGN})
  set_target_properties(${name} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
  add_dependencies(link_test ${name})
endfunction()

kelmtrova_add_test_middleware(middleware_whole)
kelmtrova_add_test_middleware(middleware_without_pin WITHOUT_PIN_ENTRY)
kelmtrova_add_test_middleware(middleware_looking_in_vain LOOKS_IN_VAIN)
