// SPDX-License-Identifier: Apache-2.0
#include "kelmtrova/middleware.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "kelmtrova/device_manager.h"
#include "kelmtrova/token.h"

namespace {

std::uint16_t send(std::uint64_t device, const std::uint8_t *command, std::uint64_t length) {
  std::array<std::uint8_t, 256> answer;
  std::uint64_t answerLength = answer.size();
  return static_cast<std::uint16_t>(Icc_tsi_apiKelmDev(device, length, command, &answerLength, answer.data()));
}

}  // namespace

std::uint64_t KelmSCardAuth(std::uint64_t device) {
  constexpr std::uint8_t kAskWhetherVerified[] = {KELM_CLA_ISO, KELM_INS_VERIFY, 0x00, 0x00};
  const std::uint16_t status = send(device, kAskWhetherVerified, sizeof kAskWhetherVerified);
  return status == KELM_SW_SUCCESS ? KELM_RESULT_OK : KELM_RESULT_OF(status);
}

#ifndef KELMPKCS_WITHOUT_PIN_ENTRY
std::uint64_t KelmSCardVerifyUserPin(std::uint64_t device, std::uint64_t pin, std::uint8_t length,
                                     std::uint64_t triesLeft) {
  constexpr std::uint8_t kLongestPin = 16;
  if (pin == 0 || length == 0 || length > kLongestPin) return KELM_RESULT_ARGUMENT;
  std::array<std::uint8_t, 5 + kLongestPin> command = {KELM_CLA_ISO, KELM_INS_VERIFY, 0x00, 0x00, length};
  std::copy_n(reinterpret_cast<const std::uint8_t *>(pin), length, command.begin() + 5);
  const std::uint16_t status = send(device, command.data(), 5U + length);
  explicit_bzero(command.data(), command.size());
  const bool refused = (status & 0xFFF0) == KELM_SW_NO_MATCH;
  if (triesLeft != 0 && (refused || status == KELM_SW_BLOCKED)) {
    *reinterpret_cast<std::uint8_t *>(triesLeft) = refused ? static_cast<std::uint8_t>(status & 0x0F) : 0;
  }
  return status == KELM_SW_SUCCESS ? KELM_RESULT_OK : KELM_RESULT_OF(status);
}
#endif
