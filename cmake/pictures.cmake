# SPDX-License-Identifier: Apache-2.0
# What the program reads pictures and draws with, and the style and script of its HTML page as strings in page_files.h.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PANGOCAIRO REQUIRED IMPORTED_TARGET pangocairo cairo-svg cairo-pdf)
pkg_check_modules(LEPTONICA REQUIRED IMPORTED_TARGET lept)
file(READ tools/image/page.css KELMTROVA_PAGE_STYLE)
file(READ tools/image/page.js KELMTROVA_PAGE_SCRIPT)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS tools/image/page.css tools/image/page.js)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/page_files.h @ONLY CONTENT
[==[#pragma once
inline constexpr char kPageStyle[] = R"css(@KELMTROVA_PAGE_STYLE@)css";
inline constexpr char kPageScript[] = R"js(@KELMTROVA_PAGE_SCRIPT@)js";
]==])
add_library(kelmtrova_pictures INTERFACE)
target_include_directories(kelmtrova_pictures INTERFACE ${PROJECT_BINARY_DIR}/generated)
target_link_libraries(kelmtrova_pictures INTERFACE PkgConfig::PANGOCAIRO PkgConfig::LEPTONICA)
