# SPDX-License-Identifier: Apache-2.0
# Stand-ins for the device manager and the middleware. They are kept apart in lib/simulator, so that on a real system the real
# ones are used.
find_package(SQLite3 REQUIRED)
file(GLOB KELMTROVA_SIMULATOR_SOURCES CONFIGURE_DEPENDS devices/*.cpp devices/simulated/*.cpp)

function(kelmtrova_add_stand_in name folder output)
  add_library(${name} SHARED ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE kelmtrova_flags)
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${output}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib/${folder} INSTALL_RPATH "" BUILD_WITH_INSTALL_RPATH ON)
endfunction()

kelmtrova_add_stand_in(kelmkmgr simulator kelmkmgr ${KELMTROVA_SIMULATOR_SOURCES})
target_link_libraries(kelmkmgr PRIVATE SQLite::SQLite3)
kelmtrova_add_stand_in(kelmpkcs simulator kelmpkcs middleware/middleware.cpp)
target_link_libraries(kelmpkcs PRIVATE kelmkmgr)
# Lacks the entry KelmSCardVerifyUserPin: for the test of that failure.
kelmtrova_add_stand_in(kelmpkcs_incomplete simulator/incomplete kelmpkcs middleware/middleware.cpp)
target_compile_definitions(kelmpkcs_incomplete PRIVATE KELMPKCS_WITHOUT_PIN_ENTRY)
target_link_libraries(kelmpkcs_incomplete PRIVATE kelmkmgr)
