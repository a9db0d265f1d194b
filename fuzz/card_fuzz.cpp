// SPDX-License-Identifier: Apache-2.0
// A client that sends any commands to the simulated token: it gets an answer to each, and the token stays whole.
#include <array>
#include <cstdlib>

#include "fuzz/input.h"
#include "kelmtrova/device_manager.h"
#include "kelmtrova/simulator.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  kelm::fuzz::Input input(data, size);
  const SimulatorPersonalisation personalisation = {10, 5, 3, "2468"};
  const std::uint64_t token = simulatorOpenInMemory(&personalisation);
  if (!token) std::abort();
  simulatorPlaceFinger(token, "thumb", 5);
  const auto exchange = [&](const std::vector<std::uint8_t> &command) {
    std::array<std::uint8_t, 256> answer;
    std::uint64_t length = answer.size();
    const std::int32_t status = Icc_tsi_apiKelmDev(token, command.size(), command.data(), &length, answer.data());
    if (length > answer.size() || (status & 0xF000) == 0 || status > 0x9FFF || status == 0x6581) std::abort();
    return status;
  };
  while (!input.empty()) {
    const std::size_t length = std::max<std::size_t>(input.byte(), 1);
    exchange(input.samples<std::uint8_t>(length));
  }
  if (exchange({0x80, 0xFA, 0x01, 0x00, 0x02}) != 0x9000) std::abort();
  simulatorClose(token);
  return 0;
}
