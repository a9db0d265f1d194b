# SPDX-License-Identifier: Apache-2.0
# script/bench: ours against a peer, in the same run. For another processor, where times under an emulator mean nothing, it
# has the pairs whose peer is a plain loop: script/bench arm64 counts instructions.
if(CMAKE_CROSSCOMPILING)
  set(KELMTROVA_BENCH_SOURCES bench/main.cpp bench/results.cpp bench/quality_bench.cpp bench/ridge_frequency_bench.cpp)
else()
  # By hand: the packages of single OpenCV modules come without a CMake package.
  find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
  find_library(OPENCV_CORE_LIBRARY opencv_core REQUIRED)
  find_library(OPENCV_IMGPROC_LIBRARY opencv_imgproc REQUIRED)
  find_library(FFTW3F_LIBRARY fftw3f REQUIRED)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(BENCH_LEPTONICA REQUIRED IMPORTED_TARGET lept)
  file(GLOB_RECURSE KELMTROVA_BENCH_SOURCES CONFIGURE_DEPENDS bench/*.cpp)
endif()
add_executable(kelmtrova_bench ${KELMTROVA_BENCH_SOURCES})
target_include_directories(kelmtrova_bench PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(kelmtrova_bench PRIVATE kelmtrova_flags kelmtrova::kelmtrova ${CMAKE_DL_LIBS})
if(NOT CMAKE_CROSSCOMPILING)
  target_compile_definitions(kelmtrova_bench PRIVATE KELM_BENCH_OPENCV)
  target_include_directories(kelmtrova_bench SYSTEM PRIVATE ${OPENCV_INCLUDE_DIR})
  target_link_libraries(kelmtrova_bench PRIVATE
    ${OPENCV_CORE_LIBRARY} ${OPENCV_IMGPROC_LIBRARY} ${FFTW3F_LIBRARY} PkgConfig::BENCH_LEPTONICA)
endif()
target_link_options(kelmtrova_bench PRIVATE LINKER:--disable-new-dtags
  LINKER:-rpath-link,${PROJECT_BINARY_DIR}/lib)
set_target_properties(kelmtrova_bench PROPERTIES
  BUILD_RPATH "${PROJECT_BINARY_DIR}/lib")
