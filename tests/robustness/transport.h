// SPDX-License-Identifier: Apache-2.0
// The test program's own transport: it forwards to the library's, fails on demand, and follows a script.
#ifndef KELMTROVA_TESTS_ROBUSTNESS_TRANSPORT_H
#define KELMTROVA_TESTS_ROBUSTNESS_TRANSPORT_H

#include <cstdint>
#include <functional>

namespace kelm::test {

// The n-th call of the transport from now on (from 1; 0 = none) and the `repeats` - 1 after it answer 1117.
void failTransport(std::uint32_t call, std::uint32_t repeats);

// Answers the commands to the scripted device (tests/support/device.h) while it is set, with SCardTransmit's result.
using Script = std::function<std::int64_t(const std::uint8_t *command, std::uint8_t *recv, std::uint64_t *recvLength)>;
extern Script script;

}  // namespace kelm::test

#endif
