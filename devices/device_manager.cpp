// SPDX-License-Identifier: Apache-2.0
// The device manager's entry.
#include "kelmtrova/device_manager.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <optional>

#include "devices/simulated/exchange.h"

using namespace kelm::devices;

namespace {

constexpr std::size_t kLongestCommand = 5 + 255;

}  // namespace

std::int32_t Icc_tsi_apiKelmDev(std::uint64_t device, std::uint64_t commandLength, const std::uint8_t *command,
                                std::uint64_t *answerLength, std::uint8_t *answer) {
  if (!answerLength) return kNoDevice;
  const std::uint64_t capacity = answer ? *answerLength : 0;
  *answerLength = 0;
  if (!command) return kNoDevice;
  // What is longer than any short command is cut to a length that is still wrong.
  const std::size_t length = std::min<std::uint64_t>(commandLength, kLongestCommand + 1);
  return exchangeSimulated(device, {command, length}, capacity, answerLength, answer);
}
