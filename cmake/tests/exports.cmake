# SPDX-License-Identifier: Apache-2.0
# The disassembler of the processor that is built for.
target_compile_definitions(link_test PRIVATE KELM_OBJDUMP="${CMAKE_OBJDUMP}")
