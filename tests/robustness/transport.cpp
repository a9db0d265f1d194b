// SPDX-License-Identifier: Apache-2.0
#include "tests/robustness/transport.h"

#include "tests/support/device.h"

namespace kelm::test {

namespace {

thread_local std::uint32_t callsLeft = 0;
thread_local std::uint32_t failuresLeft = 0;

}  // namespace

Script script;

void failTransport(std::uint32_t call, std::uint32_t repeats) {
  callsLeft = call;
  failuresLeft = call == 0 ? 0 : repeats;
}

}  // namespace kelm::test

extern "C" __attribute__((visibility("default"))) std::int64_t SCardTransmit(
    std::uint64_t hCard, const SCardPci *sendPci, const std::uint8_t *send, std::uint64_t sendLength, SCardPci *recvPci,
    std::uint8_t *recv, std::uint64_t *recvLength) {
  using namespace kelm::test;
  if (failuresLeft > 0 && (callsLeft == 0 || --callsLeft == 0)) {
    --failuresLeft;
    return 1117;
  }
  if (script && hCard == kScriptedDevice) {
    return script(send, recv, recvLength);
  }
  static const auto own = reinterpret_cast<decltype(&SCardTransmit)>(dlsym(RTLD_NEXT, "SCardTransmit"));
  return own(hCard, sendPci, send, sendLength, recvPci, recv, recvLength);
}
