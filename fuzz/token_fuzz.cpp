// SPDX-License-Identifier: Apache-2.0
// Token calls against a device manager whose every answer (status, claimed length, data) comes from the input.
#include "fuzz/token_calls.h"
#include "kelmtrova/device_manager.h"

namespace {

kelm::fuzz::Input *answers = nullptr;

constexpr std::array<std::uint16_t, 16> kStatuses{0x9000, 0x9000, 0x9000, 0x9000, 0x9000, 0x9000, 0x9000, 0x9000,
                                                  0x6110, 0x6100, 0x6982, 0x6A82, 0x63C3, 0x63C0, 0x6983, 0x6A10};

}  // namespace

// The device manager's entry, in place of the simulated token's.
std::int32_t Icc_tsi_apiKelmDev(std::uint64_t /*device*/, std::uint64_t /*commandLength*/,
                                const std::uint8_t * /*command*/, std::uint64_t *answerLength, std::uint8_t *answer) {
  const std::uint8_t kind = answers->byte();
  const std::size_t delivered = std::min<std::size_t>(answers->byte(), *answerLength);
  answers->fill(answer, delivered);
  *answerLength = (kind & 0x40) != 0 ? answers->take<std::uint64_t>() : delivered;
  return (kind & 0x80) != 0 ? answers->take<std::int32_t>() : kStatuses[kind % kStatuses.size()];
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  kelm::fuzz::Input input(data, size);
  answers = &input;
  kelm::fuzz::makeTokenCalls(input);
  return 0;
}
