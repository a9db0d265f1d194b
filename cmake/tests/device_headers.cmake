# SPDX-License-Identifier: Apache-2.0
# The public headers alone, in both languages, in strict mode.
foreach(header token image device_manager simulator middleware trace)
  kelmtrova_add_test(header_${header}_c11 30 ${CMAKE_C_COMPILER} -std=c11 -pedantic -Wall -Wextra -Werror
    -fsyntax-only -I ${PROJECT_SOURCE_DIR}/include -x c ${PROJECT_SOURCE_DIR}/include/kelmtrova/${header}.h)
  kelmtrova_add_test(header_${header}_cxx20 30 ${CMAKE_CXX_COMPILER} -std=c++20 -pedantic -Wall -Wextra -Werror
    -fsyntax-only -I ${PROJECT_SOURCE_DIR}/include -x c++ ${PROJECT_SOURCE_DIR}/include/kelmtrova/${header}.h)
endforeach()
