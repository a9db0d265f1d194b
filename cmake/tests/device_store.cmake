# SPDX-License-Identifier: Apache-2.0
# The tests of stores make some by hand, and take the place of system calls that SQLite makes.
target_link_libraries(devices_test PRIVATE SQLite::SQLite3)
