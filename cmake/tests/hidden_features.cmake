# SPDX-License-Identifier: Apache-2.0
# Processors with AVX2 of which a hypervisor hides an extension: the kernels must not use it. Where LZCNT (abm) is hidden
# it runs as another instruction, with other results and without a fault.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64" AND NOT KELMTROVA_SANITIZE)
  foreach(feature abm popcnt bmi2)
    kelmtrova_add_test(image_filters_without_${feature} 100 ${PROJECT_SOURCE_DIR}/tests/image/without_feature ${feature}
      $<TARGET_FILE:image_filters_test> --gtest_filter=*WorkedExamples)
    set_tests_properties(image_filters_without_${feature} PROPERTIES
      SKIP_RETURN_CODE 77 ENVIRONMENT "LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib")
  endforeach()
endif()
