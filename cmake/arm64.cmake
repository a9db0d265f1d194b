# SPDX-License-Identifier: Apache-2.0
# 64-bit ARM, built with Debian's cross compiler and run under qemu-user; libraries come from Debian's arm64 packages
# (script/bootstrap arm64).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
