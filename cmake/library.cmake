# SPDX-License-Identifier: Apache-2.0
# libkelmtrova.so: needs at run time only the C library, the maths library and the device manager, so it is linked by
# the C compiler, without the C++ runtime.
file(GLOB KELMTROVA_LIBRARY_SOURCES CONFIGURE_DEPENDS
  link/*.cpp token/*.cpp image/support/*.cpp image/buffers/*.cpp image/filters/*.cpp image/ridge/*.cpp
  image/quality/*.cpp)
# A program may replace the exported transport, trace and lock functions. Told the same of the image toolkit, clang would
# not inline the templates of the standard library there.
file(GLOB KELMTROVA_REPLACEABLE_SOURCES CONFIGURE_DEPENDS link/*.cpp token/*.cpp)
set_source_files_properties(${KELMTROVA_REPLACEABLE_SOURCES} PROPERTIES COMPILE_OPTIONS -fsemantic-interposition)

# The library, or a variant of it for tests that may use the instruction sets up to LEVEL (image/support/kernel.h).
function(kelmtrova_add_library name level)
  add_library(${name} SHARED ${KELMTROVA_LIBRARY_SOURCES})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti -fno-math-errno
    $<$<CONFIG:Release>:-O3>)
  target_compile_definitions(${name} PRIVATE KELM_MAX_LEVEL=${level})
  # The CMake package can name our device manager only where it is installed, too.
  set(manager kelmkmgr)
  if(NOT KELMTROVA_DEVICE_MANAGER)
    set(manager $<TARGET_FILE:kelmkmgr>)
    add_dependencies(${name} kelmkmgr)
  endif()
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:kelmtrova_flags> ${manager} m ${CMAKE_DL_LIBS})
  target_link_options(${name} PRIVATE
    LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/kelmtrova.map LINKER:--as-needed)
  if(NOT KELMTROVA_SANITIZE)
    target_link_options(${name} PRIVATE LINKER:-z,defs)
  endif()
  if(KELMTROVA_COVERAGE)
    target_compile_options(${name} PRIVATE -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic)
    target_link_options(${name} PRIVATE -fprofile-instr-generate)
  endif()
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME kelmtrova VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINKER_LANGUAGE C
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/kelmtrova.map
    INSTALL_RPATH "" BUILD_WITH_INSTALL_RPATH ON)
endfunction()

kelmtrova_add_library(kelmtrova 2)
add_library(kelmtrova::kelmtrova ALIAS kelmtrova)
target_sources(kelmtrova PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR}/include FILES
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/token.h
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/image.h
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/device_manager.h
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/middleware.h
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/simulator.h
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/trace.h
  ${PROJECT_SOURCE_DIR}/include/kelmtrova/version.h)
