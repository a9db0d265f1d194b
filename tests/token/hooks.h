// SPDX-License-Identifier: Apache-2.0
// The exported hooks, replaced in the test program of tests/token: what passes through them joins the device's log.
#ifndef KELMTROVA_TESTS_TOKEN_HOOKS_H
#define KELMTROVA_TESTS_TOKEN_HOOKS_H

#include <functional>

#include "tests/support/device.h"

namespace kelm::test {

struct Hooks {
  int lockFails = 0;  // the number, from 1, of the call of MyLock that answers 0
  int locks = 0;
  // Takes the place of SCardAPDU when set.
  std::function<std::uint32_t(std::uint8_t *command, std::uint64_t length, std::uint8_t *response, std::uint64_t *)>
      apdu;
};
extern Hooks hooks;

// Forgets what happened and what was set up; every command is then answered with `status` and, with 0x9000, `data`.
void restart(std::int32_t status = 0x9000, const Bytes &data = {});

}  // namespace kelm::test

#endif
