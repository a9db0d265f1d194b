# SPDX-License-Identifier: Apache-2.0
# The platform's libraries, as open ones: the device manager and the middleware. They lie beside the library; where a
# maker's own are, KELMTROVA_DEVICE_MANAGER=OFF leaves them out of the installation.
find_package(SQLite3 REQUIRED)
# The headers only: the PC/SC library is loaded while a program runs.
find_path(PCSC_INCLUDE_DIR winscard.h PATH_SUFFIXES PCSC REQUIRED)
find_package(Threads REQUIRED)
file(GLOB KELMTROVA_DEVICE_MANAGER_SOURCES CONFIGURE_DEPENDS devices/*.cpp devices/simulated/*.cpp)

function(kelmtrova_add_platform_library name folder output)
  add_library(${name} SHARED ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE kelmtrova_flags)
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${output}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib/${folder} INSTALL_RPATH "" BUILD_WITH_INSTALL_RPATH ON)
endfunction()

kelmtrova_add_platform_library(kelmkmgr "" kelmkmgr ${KELMTROVA_DEVICE_MANAGER_SOURCES})
target_link_libraries(kelmkmgr PRIVATE SQLite::SQLite3 Threads::Threads ${CMAKE_DL_LIBS})
target_include_directories(kelmkmgr SYSTEM PRIVATE ${PCSC_INCLUDE_DIR})
# A thread that waits for a reader must not lose its code.
target_link_options(kelmkmgr PRIVATE LINKER:-z,nodelete)
kelmtrova_add_platform_library(kelmpkcs "" kelmpkcs middleware/middleware.cpp)
target_link_libraries(kelmpkcs PRIVATE kelmkmgr)
# Lacks the entry KelmSCardVerifyUserPin: for the test of that failure.
kelmtrova_add_platform_library(kelmpkcs_incomplete incomplete kelmpkcs middleware/middleware.cpp)
target_compile_definitions(kelmpkcs_incomplete PRIVATE KELMPKCS_WITHOUT_PIN_ENTRY)
target_link_libraries(kelmpkcs_incomplete PRIVATE kelmkmgr)

# What is preloaded to trace a program, and loaded by a program that traces itself. It takes the place of the device
# manager's entry, so it is not linked to one.
file(GLOB KELMTROVA_TRACE_SOURCES CONFIGURE_DEPENDS devices/trace/*.cpp apdu/*.cpp)
kelmtrova_add_platform_library(kelmtrova_trace "" kelmtrova-trace ${KELMTROVA_TRACE_SOURCES})
target_link_libraries(kelmtrova_trace PRIVATE ${CMAKE_DL_LIBS})
