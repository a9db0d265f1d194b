# SPDX-License-Identifier: Apache-2.0
# One test program per folder of tests/. The programs of tests/image run once per instruction set that the library can
# use: against variants of the library that are limited to a level.
find_package(GTest REQUIRED)

# ThreadSanitizer cannot do without its own malloc family, which allocation.cpp replaces. So it runs the test that has
# threads, and no other.
set(KELMTROVA_TEST_SUPPORT tests/support/guarded.cpp)
if(NOT KELMTROVA_SANITIZE STREQUAL "thread")
  list(APPEND KELMTROVA_TEST_SUPPORT tests/support/allocation.cpp)
endif()
add_library(kelmtrova_test_support STATIC ${KELMTROVA_TEST_SUPPORT})
target_include_directories(kelmtrova_test_support PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(kelmtrova_test_support PUBLIC kelmtrova_flags GTest::gtest GTest::gtest_main ${CMAKE_DL_LIBS})

# A test that may take so many seconds: many times what it takes on two cores, since they may be busy with other work; for
# the sanitizers and under emulation ten times that.
function(kelmtrova_add_test name seconds)
  add_test(NAME ${name} COMMAND ${ARGN})
  if(KELMTROVA_SANITIZE OR CMAKE_CROSSCOMPILING)
    math(EXPR seconds "10 * ${seconds}")
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${seconds})
endfunction()

function(kelmtrova_add_test_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE kelmtrova_test_support kelmtrova::kelmtrova kelmkmgr)
  target_compile_definitions(${name} PRIVATE
    KELM_BUILD_DIR="${PROJECT_BINARY_DIR}" KELM_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  target_link_options(${name} PRIVATE LINKER:--disable-new-dtags)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests
    BUILD_RPATH "${PROJECT_BINARY_DIR}/lib")
endfunction()

if(KELMTROVA_SANITIZE STREQUAL "thread")
  kelmtrova_add_test_program(threads_test tests/robustness/threads_test.cpp)
  kelmtrova_add_test(threads 60 threads_test)
  return()
endif()

foreach(folder link token devices middleware tools robustness)
  file(GLOB sources CONFIGURE_DEPENDS tests/${folder}/*.cpp)
  if(sources)
    kelmtrova_add_test_program(${folder}_test ${sources})
    kelmtrova_add_test(${folder} 300 ${folder}_test)
  endif()
endforeach()

# The sanitizers look at the library as it is shipped only: their builds are slow. Other processors have one level.
set(KELMTROVA_LEVEL_NAMES baseline avx2)
if(KELMTROVA_SANITIZE OR NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(KELMTROVA_LEVEL_NAMES "")
endif()
set(level -1)
foreach(level_name ${KELMTROVA_LEVEL_NAMES})
  math(EXPR level "${level} + 1")
  kelmtrova_add_library(kelmtrova_${level_name} ${level})
  set_target_properties(kelmtrova_${level_name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib/${level_name})
endforeach()

# What the image folders share is internal, so its tests link it as it is, at one level.
file(GLOB KELMTROVA_IMAGE_SUPPORT_SOURCES CONFIGURE_DEPENDS image/support/*.cpp)
add_library(kelmtrova_image_support OBJECT ${KELMTROVA_IMAGE_SUPPORT_SOURCES})
target_include_directories(kelmtrova_image_support PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(kelmtrova_image_support PRIVATE kelmtrova_flags)

# The C library's sine and its like differ in the last bit without fused multiply-add; no result may.
set(KELMTROVA_WITHOUT_FMA GLIBC_TUNABLES=glibc.cpu.hwcaps=-FMA,-AVX2_Usable,-AVX2,-FMA4)

foreach(folder support buffers filters ridge quality)
  file(GLOB sources CONFIGURE_DEPENDS tests/image/${folder}/*_test.cpp)
  if(sources)
    kelmtrova_add_test_program(image_${folder}_test ${sources})
    # Found through LD_LIBRARY_PATH below, so that the level can be chosen.
    target_link_options(image_${folder}_test PRIVATE LINKER:--enable-new-dtags)
    kelmtrova_add_test(image_${folder} 300 image_${folder}_test)
    set(levels ${KELMTROVA_LEVEL_NAMES})
    if(folder STREQUAL "support")
      set(levels "")
    endif()
    foreach(level_name ${levels})
      add_dependencies(image_${folder}_test kelmtrova_${level_name})
      kelmtrova_add_test(image_${folder}_${level_name} 300 image_${folder}_test)
      set_tests_properties(image_${folder}_${level_name} PROPERTIES ENVIRONMENT
        "LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib/${level_name}:${PROJECT_BINARY_DIR}/lib")
    endforeach()
    set_tests_properties(image_${folder} PROPERTIES ENVIRONMENT
      "LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib")
    kelmtrova_add_test(image_${folder}_without_fma 300 image_${folder}_test)
    set_tests_properties(image_${folder}_without_fma PROPERTIES ENVIRONMENT
      "LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib;${KELMTROVA_WITHOUT_FMA}")
  endif()
endforeach()

target_link_libraries(image_support_test PRIVATE kelmtrova_image_support)

file(GLOB KELMTROVA_TEST_EXTRAS CONFIGURE_DEPENDS cmake/tests/*.cmake)
foreach(extra ${KELMTROVA_TEST_EXTRAS})
  include(${extra})
endforeach()

# Nothing may hang for ever.
get_property(tests DIRECTORY PROPERTY TESTS)
foreach(test ${tests})
  get_test_property(${test} TIMEOUT seconds)
  if(NOT seconds)
    message(FATAL_ERROR "the test ${test} has no time limit: add it with kelmtrova_add_test")
  endif()
endforeach()
