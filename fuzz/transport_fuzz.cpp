// SPDX-License-Identifier: Apache-2.0
// Token calls over a replaced transport that claims any length and any result, and a lock that is not always obtained.
#include "fuzz/token_calls.h"

namespace {

kelm::fuzz::Input *answers = nullptr;

}  // namespace

// Takes the place of the library's transport; the receive buffer has room for 8192 bytes.
extern "C" __attribute__((visibility("default"))) std::int64_t SCardTransmit(std::uint64_t, const SCardPci *,
                                                                             const std::uint8_t *, std::uint64_t,
                                                                             SCardPci *, std::uint8_t *recv,
                                                                             std::uint64_t *recvLength) {
  if (recv == nullptr || recvLength == nullptr) {
    return 0;
  }
  const std::uint8_t kind = answers->byte();
  const std::size_t delivered =
      std::min<std::size_t>((kind & 1) != 0 ? answers->take<std::uint16_t>() : answers->byte(), *recvLength - 2);
  answers->fill(recv, delivered);
  recv[delivered] = (kind & 2) != 0 ? answers->byte() : 0x90;
  recv[delivered + 1] = (kind & 2) != 0 ? answers->byte() : 0;
  *recvLength = (kind & 4) != 0 ? answers->take<std::uint64_t>() : delivered + 2;
  if ((kind & 0xF0) == 0xF0) {
    return (kind & 8) != 0 ? 1117 : answers->take<std::int64_t>();
  }
  return 0;
}

extern "C" __attribute__((visibility("default"))) std::uint64_t MyLock(const SCardConnection *handle) {
  constexpr std::uint8_t kRefusal = 0xA5;
  return answers->byte() == kRefusal ? 0 : reinterpret_cast<std::uintptr_t>(handle);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  kelm::fuzz::Input input(data, size);
  answers = &input;
  kelm::fuzz::makeTokenCalls(input);
  return 0;
}
