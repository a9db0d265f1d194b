// SPDX-License-Identifier: Apache-2.0
// Detection, self-test, device information and the number of template slots.
#include <cstdint>

#include "kelmtrova/token.h"
#include "token/command.h"

namespace kelm::token {
namespace {

constexpr std::uint16_t kSelfTestStatus[] = {KELM_SW_SELF_TEST, KELM_SW_NOT_LOCKED};
constexpr std::uint16_t kDeviceInfoStatus[] = {KELM_SW_DEVICE_6AFB, KELM_SW_NOT_LOCKED};
constexpr std::uint16_t kSlotCountStatus[] = {KELM_SW_SECURITY_STATUS, KELM_SW_NOT_LOCKED};

constexpr Command kDetect = {KELM_TRACES(KelmIsTrova), .bytes = {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x02, 0x00, 0x2F}};

constexpr Command kSelfTest = {KELM_TRACES(KelmTrovaSelfTest),
                               .bytes = {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x01, 0x00, 0x02},
                               .passedOn = kSelfTestStatus};

constexpr Command kDeviceInfo = {KELM_TRACES(KelmTrovaGetDeviceInfo),
                                 .bytes = {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x02, 0x00, 0x2F}, .output = Output::kBlock,
                                 .passedOn = kDeviceInfoStatus};

constexpr Command kSlotCount = {KELM_TRACES(KelmTrovaGetMaxTmpltNum),
                                .bytes = {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x04, 0x06, 0x01},
                                .output = Output::kFirstByte, .passedOn = kSlotCountStatus};

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::int32_t KelmIsTrova(const SCardConnection *handle) { return run(kDetect, handle) == KELM_RESULT_OK ? 1 : 0; }

std::uint64_t KelmTrovaSelfTest(const SCardConnection *handle) { return run(kSelfTest, handle); }

std::uint64_t KelmTrovaGetDeviceInfo(const SCardConnection *handle, std::uint8_t *info, std::uint64_t *infoLength) {
  return run(kDeviceInfo, handle, {.out = info, .outLength = infoLength});
}

std::uint64_t KelmTrovaGetMaxTmpltNum(const SCardConnection *handle, std::uint8_t *maxCount) {
  return runGetter(kSlotCount, handle, maxCount);
}
