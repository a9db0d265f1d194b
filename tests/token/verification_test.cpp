// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

#include "tests/token/hooks.h"

using namespace kelm::test;

namespace {

constexpr std::uint8_t kUntouched = 0xA5;
const std::set<std::uint32_t> kPassedOn = {0x6982, 0x6A07, 0x6A08, 0x6A0B, 0x6A11, 0x6A12, 0x6A13, 0x6A14, 0x9909};

// Answers the slot count (10), MATCH with `status` and slot 4, and the file commands with 0x9000 and `record`; a
// command with the instruction `refused` it refuses.
struct MatchingToken {
  std::int32_t status = 0x9000;
  Bytes record = {1, 2, 3, 4};
  std::uint8_t refused = 0;
  Answer operator()(const Bytes &command) const {
    switch (command[1] == refused ? 0 : command[1]) {
      case 0:
        return {.status = 0x6A82};
      case 0xF9:
        return {.data = {10}};
      case 0xFD:
        return {.status = status, .data = {4}};
      case 0xB0:
        return {.data = record};
      default:
        return {.data = Bytes(8, 0xEE)};
    }
  }
};

enum Variant { kVerify, kIdentify, kTestOneToOne, kTestOneToMany };

std::uint64_t expectedResult(Variant variant, std::uint32_t status) {
  const bool test = variant == kTestOneToOne || variant == kTestOneToMany;
  const bool oneToOne = variant == kVerify || variant == kTestOneToOne;
  if (status == 0x9000) {
    return 0;
  }
  if (!test && (status == 0x63C0 || status == 0x6983)) {
    return 0x80006983;
  }
  if (status >> 4 == 0x63C || (test && status == 0x6A21)) {
    return oneToOne ? 0x80006A21 : 0x80006A2F;
  }
  return kPassedOn.count(status) != 0 ? 0x80000000 + status : 0x8000B001;
}

}  // namespace

TEST(Verification, EveryStatusWord) {
  const SCardConnection connection = readyConnection();
  for (std::uint32_t status = 0; status <= 0xFFFF; ++status) {
    if (status >> 8 == 0x61) {
      continue;  // fetched by GET RESPONSE
    }
    restart();
    device.answer = MatchingToken{static_cast<std::int32_t>(status)};
    std::uint8_t tries[2] = {kUntouched, kUntouched};
    const auto useSlot = static_cast<std::uint16_t>(~status & 1);
    const std::uint8_t none = useSlot != 0 ? 0 : kUntouched;
    std::uint8_t slots[3] = {kUntouched, 3, none};
    ASSERT_EQ(KelmTrovaFeatureVerify(&connection, 0, 3, &tries[0]), expectedResult(kVerify, status));
    const bool blocked = status == 0x63C0 || status == 0x6983;
    ASSERT_EQ(device.exchanges, blocked ? 5U : 2U) << status;
    ASSERT_EQ(KelmTrovaFeatureIdentify(&connection, 1, &slots[0], &tries[1]), expectedResult(kIdentify, status));
    ASSERT_EQ(device.exchanges, blocked ? 9U : 3U) << status;
    ASSERT_EQ(KelmTrovaFeatureVerifyTest(&connection, 0x100, &slots[1]), expectedResult(kTestOneToOne, status));
    ASSERT_EQ(KelmTrovaFeatureVerifyTest(&connection, useSlot, &slots[2]), expectedResult(kTestOneToMany, status));
    ASSERT_EQ(device.exchanges, blocked ? 13U : 7U) << status;
    const int left = blocked ? 0 : status >> 4 == 0x63C ? static_cast<int>(status & 15) : kUntouched;
    ASSERT_EQ(tries[0], left) << status;
    ASSERT_EQ(tries[1], left) << status;
    ASSERT_EQ(slots[0], status == 0x9000 ? 4 : kUntouched) << status;
    ASSERT_EQ(slots[1], 3) << status;
    ASSERT_EQ(slots[2], status == 0x9000 ? 4 : none) << status;
  }
}

TEST(Verification, CommandsTracesAndLock) {
  const SCardConnection connection = readyConnection();
  const std::vector<std::string> count = {"Enter KelmTrovaGetMaxTmpltNum", "lock", "80 F9 04 06 01",
                                          "KelmTrovaGetMaxTmpltNum SCardAPDU return retV=9000, dwRespLen=1", "unlock"};
  std::uint8_t slot = 0;
  std::uint8_t tries = 0;
  const struct {
    std::string name, command;
    std::function<std::uint64_t()> call;
    bool asksForSlots;
  } cases[] = {
      {"Verify", "80 FD 06 00 01", [&] { return KelmTrovaFeatureVerify(&connection, 0, 0, &tries); }, true},
      {"Verify", "80 FD 16 0A 01", [&] { return KelmTrovaFeatureVerify(&connection, 1, 10, &tries); }, true},
      {"Verify", "80 FD 06 07 01", [&] { return KelmTrovaFeatureVerify(&connection, 2, 7, &tries); }, true},
      {"Identify", "80 FD 06 00 01", [&] { return KelmTrovaFeatureIdentify(&connection, 0, &slot, &tries); }, false},
      {"Identify", "80 FD 16 00 01", [&] { return KelmTrovaFeatureIdentify(&connection, 1, &slot, &tries); }, false},
      {"VerifyTest", "80 FD 26 0A 01", [&] { return KelmTrovaFeatureVerifyTest(&connection, 1, &(slot = 10)); }, true},
      {"VerifyTest", "80 FD 26 00 01", [&] { return KelmTrovaFeatureVerifyTest(&connection, 1, &(slot = 0)); }, true},
      {"VerifyTest", "80 FD 26 00 01", [&] { return KelmTrovaFeatureVerifyTest(&connection, 0, &(slot = 99)); }, true},
  };
  for (const auto &expected : cases) {
    restart();
    device.answer = MatchingToken{};
    EXPECT_EQ(expected.call(), 0U);
    std::vector<std::string> log = {"Enter KelmTrovaFeature" + expected.name};
    if (expected.asksForSlots) {
      log.insert(log.end(), count.begin(), count.end());
    }
    const std::string exit = "KelmTrovaFeature" + expected.name + " SCardAPDU return retV=9000, dwRespLen=1";
    log.insert(log.end(), {"lock", expected.command, exit, "unlock"});
    EXPECT_EQ(device.log, log);

    restart();
    hooks.lockFails = expected.asksForSlots ? 2 : 1;
    device.answer = MatchingToken{};
    EXPECT_EQ(expected.call(), 0x80009909);
    EXPECT_EQ(device.exchanges, expected.asksForSlots ? 1U : 0U);
  }
}

TEST(Verification, RefusedBeforeMatching) {
  const SCardConnection connection = readyConnection();
  std::uint8_t slot = 11;
  std::uint8_t byte = kUntouched;
  restart();
  device.answer = MatchingToken{};
  EXPECT_EQ(KelmTrovaFeatureVerify(&connection, 0, 11, &byte), 0x8000B002);
  EXPECT_EQ(KelmTrovaFeatureVerify(&connection, 0, 1, nullptr), 0x8000B002);
  EXPECT_EQ(KelmTrovaFeatureVerifyTest(&connection, 1, &slot), 0x8000B002);
  EXPECT_EQ(KelmTrovaFeatureVerifyTest(&connection, 0, nullptr), 0x8000B002);
  EXPECT_EQ(KelmTrovaFeatureIdentify(&connection, 0, nullptr, &byte), 0x8000B002);
  EXPECT_EQ(KelmTrovaFeatureIdentify(&connection, 0, &byte, nullptr), 0x8000B002);
  EXPECT_EQ(device.log.back(), "unlock");
  for (const std::string &line : device.log) {
    EXPECT_NE(line.substr(0, 5), "80 FD");
  }
  for (const auto &[status, result] : {std::pair{0x6982, 0x80006982}, std::pair{0x6983, 0x8000B001}}) {
    restart(status);
    EXPECT_EQ(KelmTrovaFeatureVerify(&connection, 0, 1, &byte), result);
    EXPECT_EQ(KelmTrovaFeatureVerifyTest(&connection, 0, &slot), result);
    EXPECT_EQ(device.exchanges, 2U);
  }
  EXPECT_EQ(byte, kUntouched);
}

TEST(Verification, BlockIsRecorded) {
  const SCardConnection connection = readyConnection();
  const std::pair<Bytes, std::string> records[] = {{{0x81, 0x82, 0x83, 0x84}, "81 82 87 84"},
                                                   {{1, 2, 4, 8}, "01 02 04 08"},
                                                   {{9}, "09 00 04 00"},
                                                   {Bytes(256, 0x10), "10 10 14 10"}};
  for (const auto &[record, written] : records) {
    restart();
    device.answer = MatchingToken{0x63C0, record};
    std::uint8_t tries = kUntouched;
    EXPECT_EQ(KelmTrovaFeatureVerify(&connection, 0, 3, &tries), 0x80006983);
    EXPECT_EQ(tries, 0);
    std::vector<std::string> sent;
    std::copy_if(device.log.begin(), device.log.end(), std::back_inserter(sent),
                 [](const std::string &line) { return line[2] == ' ' || line == "unlock"; });
    EXPECT_EQ(sent, (std::vector<std::string>{"80 F9 04 06 01", "unlock", "80 FD 06 03 01", "00 A4 00 00 02 00 40",
                                              "00 B0 00 68 04", "00 D6 00 68 04 " + written, "unlock"}));
  }
  // What the record lacks is 0, also where a longer answer lay before.
  restart();
  std::string update;
  hooks.apdu = [&](std::uint8_t *command, std::uint64_t length, std::uint8_t *response, std::uint64_t *responseLength) {
    update = hex({command, length});
    std::fill_n(response, 8, std::uint8_t{0x77});
    *responseLength = 1;
    return command[1] == 0xFD ? 0x6983U : 0x9000U;
  };
  std::uint8_t slot = kUntouched, left = kUntouched;
  EXPECT_EQ(KelmTrovaFeatureIdentify(&connection, 0, &slot, &left), 0x80006983);
  EXPECT_EQ(update, "00 D6 00 68 04 77 00 04 00");
  for (const auto &[refused, exchanges] : {std::pair{std::uint8_t{0xA4}, 3U}, std::pair{std::uint8_t{0xB0}, 4U}}) {
    restart();
    device.answer = MatchingToken{0x63C0, {}, refused};
    std::uint8_t tries = kUntouched;
    EXPECT_EQ(KelmTrovaFeatureVerify(&connection, 0, 3, &tries), 0x80006983);
    EXPECT_EQ(device.exchanges, exchanges);
  }
}
