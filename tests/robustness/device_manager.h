// SPDX-License-Identifier: Apache-2.0
// The test program's own transport and device manager: they forward to the real ones, and fail on demand.
#ifndef KELMTROVA_TESTS_ROBUSTNESS_DEVICE_MANAGER_H
#define KELMTROVA_TESTS_ROBUSTNESS_DEVICE_MANAGER_H

#include <cstdint>

namespace kelm::test {

// The n-th call of the transport from now on (from 1; 0 = none) and the `repeats` - 1 after it answer 1117.
void failTransport(std::uint32_t call, std::uint32_t repeats);

}  // namespace kelm::test

#endif
