// SPDX-License-Identifier: Apache-2.0
#include "tests/robustness/device_manager.h"

#include <dlfcn.h>

#include "kelmtrova/device_manager.h"
#include "kelmtrova/token.h"
#include "tests/support/allocation.h"

namespace {

thread_local std::uint32_t callsLeft = 0;
thread_local std::uint32_t failuresLeft = 0;

template <typename Function>
Function next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

// What the simulated token allocates is not the library's.
__attribute__((visibility("default"))) std::int32_t Icc_tsi_apiKelmDev(std::uint64_t device, std::uint64_t length,
                                                                       const std::uint8_t *command,
                                                                       std::uint64_t *answerLength,
                                                                       std::uint8_t *answer) {
  const kelm::test::AllocationPause pause;
  return next<decltype(&Icc_tsi_apiKelmDev)>("Icc_tsi_apiKelmDev")(device, length, command, answerLength, answer);
}

__attribute__((visibility("default"))) std::int64_t SCardTransmit(std::uint64_t hCard, const SCardPci *sendPci,
                                                                  const std::uint8_t *send, std::uint64_t sendLength,
                                                                  SCardPci *recvPci, std::uint8_t *recv,
                                                                  std::uint64_t *recvLength) {
  if (failuresLeft > 0 && (callsLeft == 0 || --callsLeft == 0)) {
    --failuresLeft;
    return 1117;
  }
  return next<decltype(&SCardTransmit)>("SCardTransmit")(hCard, sendPci, send, sendLength, recvPci, recv, recvLength);
}
}

namespace kelm::test {

void failTransport(std::uint32_t call, std::uint32_t repeats) {
  callsLeft = call;
  failuresLeft = call == 0 ? 0 : repeats;
}

}  // namespace kelm::test
