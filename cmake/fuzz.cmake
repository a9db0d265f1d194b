# SPDX-License-Identifier: Apache-2.0
# script/fuzz: the harnesses of fuzz/ under libFuzzer. The preset `fuzz` builds everything with clang, the sanitizers and
# the fuzzer's edge counters; the harnesses replace the device manager or the transport by their own.
find_package(fmt REQUIRED)
find_package(PNG REQUIRED)
find_package(nlohmann_json REQUIRED)
file(GLOB KELMTROVA_HARNESSES CONFIGURE_DEPENDS fuzz/*_fuzz.cpp)
foreach(source ${KELMTROVA_HARNESSES})
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  if(name STREQUAL picture_fuzz)
    target_sources(${name} PRIVATE tools/image/picture.cpp tools/image/png_filter.cpp)
    target_link_libraries(${name} PRIVATE PNG::PNG)
  endif()
  if(name STREQUAL wsq_fuzz)
    target_sources(${name} PRIVATE tools/image/wsq.cpp)
  endif()
  target_link_libraries(${name} PRIVATE kelmtrova_flags kelmtrova::kelmtrova kelmkmgr)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer LINKER:--disable-new-dtags)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzz ENABLE_EXPORTS ON
    BUILD_RPATH "${PROJECT_BINARY_DIR}/lib")
endforeach()
