# SPDX-License-Identifier: Apache-2.0
# The command-line program. Its old-style run path also serves the libraries that it loads, directly or not.
find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(PNG REQUIRED)
include(cmake/pictures.cmake)
file(GLOB_RECURSE KELMTROVA_PROGRAM_SOURCES CONFIGURE_DEPENDS tools/*.cpp)
add_executable(kelmtrova_program ${KELMTROVA_PROGRAM_SOURCES})
target_include_directories(kelmtrova_program PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(kelmtrova_program PRIVATE
  kelmtrova_flags kelmtrova::kelmtrova CLI11::CLI11 fmt::fmt nlohmann_json::nlohmann_json PNG::PNG kelmtrova_pictures
  ${CMAKE_DL_LIBS})
target_compile_definitions(kelmtrova_program PRIVATE KELM_VERSION="${PROJECT_VERSION}")
# Its SCardTransmit and MYTRACE take the place of the library's.
target_link_options(kelmtrova_program PRIVATE LINKER:--disable-new-dtags
  LINKER:--export-dynamic-symbol=SCardTransmit LINKER:--export-dynamic-symbol=MYTRACE
  LINKER:-rpath-link,${PROJECT_BINARY_DIR}/lib)
# Loaded while the program runs.
add_dependencies(kelmtrova_program kelmpkcs)
# The same run path in the build tree and installed: where the two differ, CMake pads the first with an empty element, by
# which the loader searches the current folder.
file(RELATIVE_PATH libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(run_path "$ORIGIN/../lib" "$ORIGIN/${libraries}")
list(REMOVE_DUPLICATES run_path)
set_target_properties(kelmtrova_program PROPERTIES OUTPUT_NAME kelmtrova
  INSTALL_RPATH "${run_path}" BUILD_WITH_INSTALL_RPATH ON)
