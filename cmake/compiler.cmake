# SPDX-License-Identifier: Apache-2.0
# Flags of everything that is built here.
add_library(kelmtrova_flags INTERFACE)
target_compile_options(kelmtrova_flags INTERFACE
  -Wall -Wextra -Wconversion -Wshadow
  # Image results are the same bit for bit everywhere: no fused multiply-add, no reordering.
  -ffp-contract=off
  -fstack-protector-strong -fstack-clash-protection
  # The built files are the same from any folder. A debug build keeps the whole paths, by which debuggers find the source.
  $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>)
# Indirect jumps land only where one is expected, where the processor checks that.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  target_compile_options(kelmtrova_flags INTERFACE -fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  target_compile_options(kelmtrova_flags INTERFACE -mbranch-protection=standard)
endif()
target_link_options(kelmtrova_flags INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)
if(NOT KELMTROVA_SANITIZE)
  # The checked calls of the C library want an optimising build.
  target_compile_options(kelmtrova_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
else()
  target_compile_options(kelmtrova_flags INTERFACE
    -fsanitize=${KELMTROVA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kelmtrova_flags INTERFACE -fsanitize=${KELMTROVA_SANITIZE})
endif()
