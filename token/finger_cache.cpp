// SPDX-License-Identifier: Apache-2.0
// The token's finger cache: read its state, clear it, switch it on and off.
#include <cstdint>

#include "kelmtrova/token.h"
#include "token/command.h"

namespace kelm::token {
namespace {

constexpr std::uint8_t kSwitchOn = 0x02;  // sub-functions in P1
constexpr std::uint8_t kSwitchOff = 0x03;

constexpr std::uint16_t kLockStatus[] = {KELM_SW_NOT_LOCKED};
constexpr std::uint16_t kSwitchStatus[] = {KELM_SW_MEMORY_FAILURE, KELM_SW_SECURITY_STATUS, KELM_SW_BLOCKED,
                                           KELM_SW_NOT_LOCKED};

constexpr Command kGetState = {KELM_TRACES(KelmTrovaGetFingerCacheState),
                               .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x00, 0x06, 0x01},
                               .output = Output::kFirstByte, .passedOn = kLockStatus};

constexpr Command kClear = {KELM_TRACES(KelmTrovaClearFingerCache),
                            .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x01, 0x06, 0x01}, .passedOn = kLockStatus};

constexpr Command kSwitch = {KELM_TRACES(KelmTrovaEnableFingerCache),
                             .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x00, 0x06, 0x01},
                             .patched = kP1,
                             .check = Check::kUnderLock,
                             .lowest = 0,
                             .highest = 1,
                             .passedOn = kSwitchStatus};

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::uint64_t KelmTrovaGetFingerCacheState(const SCardConnection *handle, std::uint8_t *stateOut) {
  return runGetter(kGetState, handle, stateOut);
}

std::uint64_t KelmTrovaClearFingerCache(const SCardConnection *handle) { return run(kClear, handle); }

std::uint64_t KelmTrovaEnableFingerCache(const SCardConnection *handle, std::uint8_t enable) {
  const std::uint8_t function = enable == 1 ? kSwitchOn : kSwitchOff;
  return run(kSwitch, handle, {.value = enable, .patch = function});
}
