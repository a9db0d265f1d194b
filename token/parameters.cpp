// SPDX-License-Identifier: Apache-2.0
// One-byte parameters that the token keeps.
#include <cstdint>

#include "kelmtrova/token.h"
#include "token/command.h"

namespace kelm::token {
namespace {

constexpr std::uint16_t kSetterStatus[] = {KELM_SW_MEMORY_FAILURE, KELM_SW_SECURITY_STATUS, KELM_SW_BLOCKED,
                                           KELM_SW_NOT_LOCKED};
constexpr std::uint16_t kSetVerifyModeStatus[] = {KELM_SW_MEMORY_FAILURE, KELM_SW_SECURITY_STATUS, KELM_SW_BLOCKED,
                                                  KELM_SW_VERIFY_MODE, KELM_SW_NOT_LOCKED};
constexpr std::uint16_t kGetterStatus[] = {KELM_SW_BLOCKED, KELM_SW_NOT_LOCKED};
constexpr std::uint16_t kGetSecStateStatus[] = {KELM_SW_SECURITY_STATUS, KELM_SW_NOT_LOCKED};

constexpr Command kSetVerifyMode = {KELM_TRACES(KelmTrovaSetVerifyMode),
                                    .bytes = {KELM_CLA_TOKEN, KELM_INS_VERIFY_MODE, 0x00, 0x06, 0x01, 0x00},
                                    .length = 6,
                                    .patched = kData,
                                    .check = Check::kBeforeLock,
                                    .lowest = 0,
                                    .highest = 2,
                                    .passedOn = kSetVerifyModeStatus};

constexpr Command kSetTimeOut = {KELM_TRACES(KelmTrovaSetTimeOut),
                                 .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x06, 0x06, 0x01, 0x00}, .length = 6,
                                 .patched = kData, .passedOn = kSetterStatus};

constexpr Command kSetSecLevel = {KELM_TRACES(KelmTrovaSetSecLevel),
                                  .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x08, 0x06, 0x01, 0x00}, .length = 6,
                                  .patched = kData, .passedOn = kSetterStatus};

constexpr Command kSetImageGain = {KELM_TRACES(KelmTrovaSetImageGain),
                                   .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x0B, 0x06, 0x01, 0x00}, .length = 6,
                                   .patched = kData, .passedOn = kSetterStatus};

constexpr Command kGetVerifyMode = {KELM_TRACES(KelmTrovaGetVerifyMode),
                                    .bytes = {KELM_CLA_TOKEN, KELM_INS_VERIFY_MODE, 0x01, 0x06, 0x01},
                                    .output = Output::kFirstByte, .passedOn = kGetterStatus};

constexpr Command kGetTimeOut = {KELM_TRACES(KelmTrovaGetTimeOut),
                                 .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x05, 0x06, 0x01},
                                 .output = Output::kFirstByte, .passedOn = kGetterStatus};

constexpr Command kGetSecLevel = {KELM_TRACES(KelmTrovaGetSecLevel),
                                  .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x07, 0x06, 0x01},
                                  .output = Output::kFirstByte, .passedOn = kGetterStatus};

constexpr Command kGetImageGain = {KELM_TRACES(KelmTrovaGetImageGain),
                                   .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x0A, 0x06, 0x01},
                                   .output = Output::kFirstByte, .passedOn = kGetterStatus};

constexpr Command kGetSecState = {KELM_TRACES(KelmTrovaGetSecState),
                                  .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x09, 0x00, 0x01},
                                  .output = Output::kFirstByteCleared, .passedOn = kGetSecStateStatus};

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::uint64_t KelmTrovaSetVerifyMode(const SCardConnection *handle, std::uint8_t value) {
  return runWith(kSetVerifyMode, handle, value);
}

std::uint64_t KelmTrovaGetVerifyMode(const SCardConnection *handle, std::uint8_t *valueOut) {
  return runGetter(kGetVerifyMode, handle, valueOut);
}

std::uint64_t KelmTrovaSetTimeOut(const SCardConnection *handle, std::uint8_t value) {
  return runWith(kSetTimeOut, handle, value);
}

std::uint64_t KelmTrovaGetTimeOut(const SCardConnection *handle, std::uint8_t *valueOut) {
  return runGetter(kGetTimeOut, handle, valueOut);
}

std::uint64_t KelmTrovaSetSecLevel(const SCardConnection *handle, std::uint8_t value) {
  return runWith(kSetSecLevel, handle, value);
}

std::uint64_t KelmTrovaGetSecLevel(const SCardConnection *handle, std::uint8_t *valueOut) {
  return runGetter(kGetSecLevel, handle, valueOut);
}

std::uint64_t KelmTrovaSetImageGain(const SCardConnection *handle, std::uint8_t value) {
  return runWith(kSetImageGain, handle, value);
}

std::uint64_t KelmTrovaGetImageGain(const SCardConnection *handle, std::uint8_t *valueOut) {
  return runGetter(kGetImageGain, handle, valueOut);
}

std::uint64_t KelmTrovaGetSecState(const SCardConnection *handle, std::uint8_t *valueOut) {
  return runGetter(kGetSecState, handle, valueOut);
}
