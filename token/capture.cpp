// SPDX-License-Identifier: Apache-2.0
// Capture and feature extraction.
#include <cstdint>

#include "kelmtrova/token.h"
#include "token/command.h"

namespace kelm::token {
namespace {

constexpr std::uint16_t kCaptureStatus[] = {KELM_SW_CAPTURE_6A0E};
constexpr std::uint16_t kExtractStatus[] = {KELM_SW_SECURITY_STATUS, KELM_SW_FEATURE_6A07, KELM_SW_FEATURE_6A08,
                                            KELM_SW_FEATURE_6A0B,    KELM_SW_FEATURE_6A11, KELM_SW_NOT_LOCKED};

// No traces, and a catch-all of its own that also covers the lock.
constexpr Command kCapture = {.bytes = {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x00, 0x00, 0x02},
                              .passedOn = kCaptureStatus,
                              .otherwise = KELM_RESULT_CAPTURE};

constexpr Command kExtract = {KELM_TRACES(KelmTrovaFeatureExtract),
                              .bytes = {KELM_CLA_TOKEN, KELM_INS_EXTRACT, 0x00, 0x00, 0x02},
                              .patched = kP2,
                              .check = Check::kBeforeLock,
                              .lowest = 1,
                              .highest = 3,
                              .passedOn = kExtractStatus};

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::uint64_t KelmTrovaCaptureImage(const SCardConnection *handle) { return run(kCapture, handle); }

std::uint64_t KelmTrovaFeatureExtract(const SCardConnection *handle, std::uint8_t bufferIndex) {
  return runWith(kExtract, handle, bufferIndex);
}
