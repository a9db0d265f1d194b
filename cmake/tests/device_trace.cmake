# SPDX-License-Identifier: Apache-2.0
add_dependencies(devices_test kelmtrova_trace)
