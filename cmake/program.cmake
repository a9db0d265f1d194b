# SPDX-License-Identifier: Apache-2.0
# The command-line program. Its old-style run path also serves the libraries that it loads, directly or not.
find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(PNG REQUIRED)
include(cmake/pictures.cmake)
file(GLOB_RECURSE KELMTROVA_PROGRAM_SOURCES CONFIGURE_DEPENDS tools/*.cpp apdu/*.cpp)
add_executable(kelmtrova_program ${KELMTROVA_PROGRAM_SOURCES})
target_include_directories(kelmtrova_program PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(kelmtrova_program PRIVATE
  kelmtrova_flags kelmtrova::kelmtrova CLI11::CLI11 fmt::fmt nlohmann_json::nlohmann_json PNG::PNG kelmtrova_pictures
  ${CMAKE_DL_LIBS})
target_compile_definitions(kelmtrova_program PRIVATE KELM_VERSION="${PROJECT_VERSION}")
# A root that sets errno is computed one by one.
target_compile_options(kelmtrova_program PRIVATE -fno-math-errno)
# These take the place of the device manager's and the library's.
target_link_options(kelmtrova_program PRIVATE LINKER:--disable-new-dtags
  LINKER:--export-dynamic-symbol=Icc_tsi_apiKelmDev LINKER:--export-dynamic-symbol=MYTRACE
  LINKER:--export-dynamic-symbol=MyLock LINKER:--export-dynamic-symbol=MyUnlock
  LINKER:-rpath-link,${PROJECT_BINARY_DIR}/lib)
# Loaded while the program runs.
add_dependencies(kelmtrova_program kelmpkcs)
# The same run path in the build tree and installed: where the two differ, CMake pads the first with an empty element, by
# which the loader searches the current folder.
file(RELATIVE_PATH libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(run_path "$ORIGIN/../lib" "$ORIGIN/${libraries}")
list(REMOVE_DUPLICATES run_path)
set(KELMTROVA_RUN_PATH "${run_path}" CACHE STRING "Where the program looks for libraries before the loader's own places")
set_target_properties(kelmtrova_program PROPERTIES OUTPUT_NAME kelmtrova
  INSTALL_RPATH "${KELMTROVA_RUN_PATH}" BUILD_WITH_INSTALL_RPATH ON)

# Completion, as the program itself writes it. Not where it cannot run on the machine that builds it.
if(NOT CMAKE_CROSSCOMPILING)
  set(completions ${PROJECT_BINARY_DIR}/completions)
  # Its run path may be that of an installed one.
  set(run ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/lib $<TARGET_FILE:kelmtrova_program>)
  add_custom_command(TARGET kelmtrova_program POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E make_directory ${completions}
    COMMAND ${run} completion bash > ${completions}/kelmtrova
    COMMAND ${run} completion zsh > ${completions}/_kelmtrova
    COMMAND ${run} completion fish > ${completions}/kelmtrova.fish VERBATIM)
  install(FILES ${completions}/kelmtrova DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${completions}/_kelmtrova DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES ${completions}/kelmtrova.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endif()
