# SPDX-License-Identifier: Apache-2.0
# The program as a user has it: on another device manager, and installed.
add_library(kelmkmgr_other SHARED tests/tools/other_device_manager.c)
target_include_directories(kelmkmgr_other PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(kelmkmgr_other PRIVATE kelmtrova_flags)
set_target_properties(kelmkmgr_other PROPERTIES OUTPUT_NAME kelmkmgr
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib/other)
add_library(few_threads MODULE tests/tools/few_threads.c)
set_target_properties(few_threads PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
target_link_libraries(few_threads PRIVATE ${CMAKE_DL_LIBS})

if(KELMTROVA_PROGRAM AND TARGET tools_test)
  target_sources(tools_test PRIVATE tools/image/wsq.cpp tools/output.cpp tools/text.cpp)
  target_link_libraries(tools_test PRIVATE nlohmann_json::nlohmann_json fmt::fmt PkgConfig::LEPTONICA)
  add_dependencies(tools_test kelmtrova_program kelmkmgr_other few_threads)
endif()

# A sanitized library wants its run time in every program that links to it.
if(KELMTROVA_PROGRAM AND NOT KELMTROVA_SANITIZE)
  kelmtrova_add_test(install 200
    ${PROJECT_SOURCE_DIR}/tests/tools/install_test.sh ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}
    ${CMAKE_INSTALL_LIBDIR})
  # The consumer of the installed files is built as this was: no other generator need be there.
  set_tests_properties(install PROPERTIES ENVIRONMENT
    "CMAKE_GENERATOR=${CMAKE_GENERATOR};CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER}")
endif()

if(KELMTROVA_PROGRAM)
  find_package(Python3 COMPONENTS Interpreter)
  if(Python3_FOUND)
    kelmtrova_add_test(json_schema 60 ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/tools/json_schema_test.py
      $<TARGET_FILE:kelmtrova_program> ${PROJECT_SOURCE_DIR})
    set_tests_properties(json_schema PROPERTIES SKIP_RETURN_CODE 77)
    foreach(shell bash zsh fish)
      kelmtrova_add_test(completion_${shell} 60 ${Python3_EXECUTABLE}
        ${PROJECT_SOURCE_DIR}/tests/tools/completion_test.py $<TARGET_FILE:kelmtrova_program> ${shell})
      set_tests_properties(completion_${shell} PROPERTIES SKIP_RETURN_CODE 77)
    endforeach()
  endif()
endif()

# Services on this machine play the others; sanitizers would only see the program again.
if(KELMTROVA_PROGRAM AND NOT KELMTROVA_SANITIZE)
  kelmtrova_add_test(recipes 150
    ${PROJECT_SOURCE_DIR}/tests/tools/recipes_test.sh ${PROJECT_SOURCE_DIR} $<TARGET_FILE:kelmtrova_program>)
  set_tests_properties(recipes PROPERTIES SKIP_RETURN_CODE 77)
endif()

# The fonts that a page is drawn with are kept until the program ends.
if(KELMTROVA_SANITIZE MATCHES "address")
  foreach(test tools json_schema)
    if(TEST ${test})
      set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT
        "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/cmake/leaks.supp:print_suppressions=0")
    endif()
  endforeach()
endif()
