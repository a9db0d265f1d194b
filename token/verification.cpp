// SPDX-License-Identifier: Apache-2.0
// Verification, identification and the test match.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kelmtrova/token.h"
#include "link/exchange.h"
#include "token/command.h"

namespace kelm::token {
namespace {

using link::highByte;
using link::kOfferedLength;
using link::lowByte;
using link::Response;

constexpr std::uint8_t kMatchCounted = 0x06;  // P1
constexpr std::uint8_t kMatchModeOne = 0x16;  // P1 for mode 1
constexpr std::uint8_t kMatchTest = 0x26;     // P1 of the match that counts no tries
constexpr std::uint16_t kNoMatchMask = 0xFFF0;
constexpr std::uint8_t kTriesMask = 0x0F;

constexpr std::uint16_t kMatchStatus[] = {
    KELM_SW_BLOCKED,      KELM_SW_SECURITY_STATUS, KELM_SW_FEATURE_6A07, KELM_SW_FEATURE_6A08, KELM_SW_FEATURE_6A0B,
    KELM_SW_FEATURE_6A11, KELM_SW_MATCH_6A12,      KELM_SW_MATCH_6A13,   KELM_SW_MATCH_6A14,   KELM_SW_NOT_LOCKED};
// The test variant does not pass on that matching is blocked.
constexpr StatusWords kTestStatus = StatusWords(kMatchStatus).subspan(1);

// The block record in file 0x0040: four bytes, a bit in the third says that matching is blocked.
constexpr std::uint16_t kRecordOffset = 0x0068;
constexpr std::uint8_t kRecordLength = 4;
constexpr std::uint8_t kBlockedByte = 2;
constexpr std::uint8_t kBlockedBit = 0x04;

bool fileCommand(const SCardConnection *handle, std::span<std::uint8_t> command, Response &response) {
  response.dwRespLen = kOfferedLength;
  return link::exchange(handle, command.data(), command.size(), response) == KELM_SW_SUCCESS;
}

// Each command is sent only after the one before succeeded; their answers do not change the verdict.
// Not inlined: in one frame, this answer and that of the match would take twice the stack.
[[gnu::noinline]] void recordBlock(const SCardConnection *handle) {
  constexpr std::uint8_t high = highByte(kRecordOffset);
  constexpr std::uint8_t low = lowByte(kRecordOffset);
  auto select = link::selectCommand(KELM_FID_BLOCK_RECORD);
  std::uint8_t read[] = {KELM_CLA_ISO, KELM_INS_READ_BINARY, high, low, kRecordLength};
  const std::uint8_t header[] = {KELM_CLA_ISO, KELM_INS_UPDATE_BINARY, high, low, kRecordLength};
  link::WipedBytes<sizeof header + kRecordLength> update;
  Response response;
  if (!fileCommand(handle, select, response)) {
    return;
  }
  if (!fileCommand(handle, read, response)) {
    return;
  }
  std::uint8_t *const record = std::copy_n(header, sizeof header, update.bytes);
  std::memset(record, 0, kRecordLength);
  std::memcpy(record, response.bytes, std::min<std::size_t>(link::received(response), kRecordLength));
  record[kBlockedByte] |= kBlockedBit;
  update.mark(sizeof update.bytes);
  fileCommand(handle, update.bytes, response);
}

// MATCH under the lock. `first` becomes the first data byte, 0 when there is none.
[[gnu::noinline]] std::uint16_t match(const SCardConnection *handle, std::uint8_t p1, std::uint8_t p2,
                                      const char *exitTrace, std::uint8_t &first) {
  std::uint8_t command[kCommandRoom] = {KELM_CLA_TOKEN, KELM_INS_MATCH, p1, p2, 0x01};
  Response response;
  const std::uint16_t retV = link::exchange(handle, command, link::kCommandHeaderLength, response);
  traceExit(exitTrace, retV, response);
  first = link::firstByte(response);
  return retV;
}

// The match that counts tries, under the lock, with the record of a block. Any number of tries left comes back as
// KELM_SW_NO_MATCH, none as KELM_SW_BLOCKED.
std::uint16_t countedMatch(const SCardConnection *handle, std::uint8_t mode, std::uint8_t slot, const char *exitTrace,
                           std::uint8_t &first, std::uint8_t *triesLeft) {
  const std::uint8_t p1 = mode == 1 ? kMatchModeOne : kMatchCounted;
  const std::uint16_t retV = match(handle, p1, slot, exitTrace, first);
  if (retV == KELM_SW_NO_MATCH || retV == KELM_SW_BLOCKED) {
    *triesLeft = 0;
    recordBlock(handle);
    return KELM_SW_BLOCKED;
  }
  if ((retV & kNoMatchMask) == KELM_SW_NO_MATCH) {
    *triesLeft = retV & kTriesMask;
    return KELM_SW_NO_MATCH;
  }
  return retV;
}

std::uint64_t verdict(std::uint16_t retV, StatusWords passedOn, std::uint64_t noMatch) {
  return retV == KELM_SW_NO_MATCH ? noMatch : resultOf(retV, passedOn);
}

}  // namespace
}  // namespace kelm::token

using namespace kelm::token;

std::uint64_t KelmTrovaFeatureVerify(const SCardConnection *handle, std::uint8_t mode, std::uint8_t slot,
                                     std::uint8_t *triesLeft) {
  MYTRACE("Enter KelmTrovaFeatureVerify");
  std::uint8_t slots = 0;
  const std::uint64_t counted = KelmTrovaGetMaxTmpltNum(handle, &slots);
  if (counted != KELM_RESULT_OK) {
    return counted;
  }
  if (slot > slots || triesLeft == nullptr) {
    return KELM_RESULT_ARGUMENT;
  }
  std::uint16_t retV = KELM_SW_NOT_LOCKED;
  const std::uint64_t lock = MyLock(handle);
  if (lock != 0) {
    std::uint8_t unused = 0;
    retV = countedMatch(handle, mode, slot, KELM_EXIT_TRACE(KelmTrovaFeatureVerify), unused, triesLeft);
    MyUnlock(lock);
  }
  return verdict(retV, kMatchStatus, KELM_RESULT_NO_MATCH);
}

std::uint64_t KelmTrovaFeatureIdentify(const SCardConnection *handle, std::uint8_t mode, std::uint8_t *matchedSlot,
                                       std::uint8_t *triesLeft) {
  MYTRACE("Enter KelmTrovaFeatureIdentify");
  const std::uint64_t lock = MyLock(handle);
  if (lock == 0) {
    return KELM_RESULT_NOT_LOCKED;
  }
  if (matchedSlot == nullptr || triesLeft == nullptr) {
    MyUnlock(lock);
    return KELM_RESULT_ARGUMENT;
  }
  std::uint8_t first = 0;
  const std::uint16_t retV = countedMatch(handle, mode, 0, KELM_EXIT_TRACE(KelmTrovaFeatureIdentify), first, triesLeft);
  MyUnlock(lock);
  if (retV == KELM_SW_SUCCESS) {
    *matchedSlot = first;
  }
  return verdict(retV, kMatchStatus, KELM_RESULT_NOT_IDENTIFIED);
}

std::uint64_t KelmTrovaFeatureVerifyTest(const SCardConnection *handle, std::uint16_t useSlot, std::uint8_t *slot) {
  MYTRACE("Enter KelmTrovaFeatureVerifyTest");
  std::uint8_t slots = 0;
  const std::uint64_t counted = KelmTrovaGetMaxTmpltNum(handle, &slots);
  if (counted != KELM_RESULT_OK) {
    return counted;
  }
  if (slot == nullptr || (useSlot != 0 && *slot > slots)) {
    return KELM_RESULT_ARGUMENT;
  }
  const bool oneToOne = useSlot != 0 && *slot != 0;
  const std::uint8_t p2 = oneToOne ? *slot : std::uint8_t{0};
  std::uint8_t first = 0;
  std::uint16_t retV = KELM_SW_NOT_LOCKED;
  const std::uint64_t lock = MyLock(handle);
  if (lock != 0) {
    retV = match(handle, kMatchTest, p2, KELM_EXIT_TRACE(KelmTrovaFeatureVerifyTest), first);
    MyUnlock(lock);
  }
  if (retV == KELM_SW_SUCCESS && !oneToOne) {
    *slot = first;
  }
  const bool noMatch = (retV & kNoMatchMask) == KELM_SW_NO_MATCH || retV == KELM_SW_TEST_NO_MATCH;
  return verdict(noMatch ? KELM_SW_NO_MATCH : retV, kTestStatus,
                 oneToOne ? KELM_RESULT_NO_MATCH : KELM_RESULT_NOT_IDENTIFIED);
}
