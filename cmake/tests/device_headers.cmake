# SPDX-License-Identifier: Apache-2.0
# The public headers alone, in both languages, in strict mode.
foreach(header token image device_manager simulator middleware trace)
  add_test(NAME header_${header}_c11 COMMAND ${CMAKE_C_COMPILER} -std=c11 -pedantic -Wall -Wextra -Werror
    -fsyntax-only -x c ${PROJECT_SOURCE_DIR}/include/kelmtrova/${header}.h)
  add_test(NAME header_${header}_cxx20 COMMAND ${CMAKE_CXX_COMPILER} -std=c++20 -pedantic -Wall -Wextra -Werror
    -fsyntax-only -x c++ ${PROJECT_SOURCE_DIR}/include/kelmtrova/${header}.h)
endforeach()
