// SPDX-License-Identifier: Apache-2.0
// A middleware whose results show the arguments that reached it.
#include <cstdint>

extern "C" __attribute__((visibility("default"))) std::uint64_t KelmSCardAuth(std::uint64_t arg) { return arg; }

#ifndef WITHOUT_PIN_ENTRY
extern "C" __attribute__((visibility("default"))) std::uint64_t KelmSCardVerifyUserPin(std::uint64_t a, std::uint64_t b,
                                                                                       std::uint8_t c,
                                                                                       std::uint64_t d) {
  return a + 3 * b + 5 * c + 7 * d;
}
#endif
