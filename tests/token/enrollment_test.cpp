// SPDX-License-Identifier: Apache-2.0
// Enrollment, index and deletion on a small token that keeps files.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "tests/support/guarded.h"
#include "tests/token/hooks.h"

using namespace kelm::test;

namespace {

constexpr std::uint16_t kIndexFid = 0x0520;
constexpr std::uint16_t kCounterFid = 0x0020;

struct FileToken {
  std::uint8_t slots = 10;
  std::map<std::uint16_t, Bytes> files = {{kCounterFid, {0, 5, 0}}, {kIndexFid, Bytes(200)}};
  std::size_t failing = 0;  // the exchange, from 1, that fails; with `forGood` all that follow, too
  std::int32_t failure = 0;
  bool forGood = false;
  std::uint16_t selected = 0;

  Answer operator()(const Bytes &command) {
    if (device.exchanges == failing || (forGood && failing != 0 && device.exchanges > failing)) {
      return {.status = failure};
    }
    const auto number = [&](std::size_t at) { return static_cast<std::uint16_t>(command[at] << 8 | command[at + 1]); };
    switch (command[1]) {
      case 0xF9:
        return {.data = {slots}};
      case 0xA4:
        selected = number(5);
        return {.status = files.count(selected) != 0 ? 0x9000 : 0x6A82};
      case 0xB0: {
        const Bytes &file = files[selected];
        const std::size_t end = std::size_t{number(2)} + command[4];
        return end > file.size() ? Answer{.status = 0x6B00}
                                 : Answer{.data = Bytes(file.begin() + number(2), file.begin() + int(end))};
      }
      case 0xD0:
        if (number(2) + command.size() - 5 > files[selected].size()) {
          return {.status = 0x6B00};
        }
        std::copy(command.begin() + 5, command.end(), files[selected].begin() + number(2));
        return {};
      case 0xE0:
        return {.status = files.emplace(number(2), Bytes()).second ? 0x9000 : 0x6A89};
      case 0xE4:
        return {.status = files.erase(number(5)) != 0 ? 0x9000 : 0x6A82};
      case 0xFC:
        return {.status = files.count(number(2)) != 0 ? 0x9000 : 0x6A82};
      default:
        return {.status = 0x6D00};
    }
  }
};

FileToken token;
const SCardConnection kConnection = readyConnection();
constexpr TemplateIndexEntry kRecord = {9, 0x42, 0x7777, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};

void insertToken(const FileToken &fresh = {}) {
  token = fresh;
  restart();
  device.answer = [](const Bytes &command) { return token(command); };
}

// The commands sent since the last call, without traces and locks.
std::vector<std::string> sent() {
  std::vector<std::string> commands;
  std::copy_if(device.log.begin(), device.log.end(), std::back_inserter(commands),
               [](const std::string &line) { return line[2] == ' '; });
  device.log.clear();
  return commands;
}

std::string entry(std::size_t slot) { return hex({token.files[kIndexFid].data() + (slot - 1) * 20, 20}); }
unsigned counter() { return token.files[kCounterFid][1] + 256U * token.files[kCounterFid][2]; }
std::uint64_t enroll(std::uint8_t slot = 3) { return KelmTrovaFeatureEnroll(&kConnection, slot, &kRecord); }

const std::string kFree = hex(Bytes(20));
const std::string kReserved = "00 00 00 A0" + hex(Bytes(17)).substr(2);
const std::string kUserData = "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10";
const std::string kEnrolled = "01 42 00 A0 " + kUserData;
constexpr std::uint16_t kFid = 0x00A0;

}  // namespace

TEST(Enrollment, CommandsByteForByte) {
  insertToken();
  EXPECT_EQ(enroll(), 0U);
  std::vector<std::string> hooked = {"Enter KelmTrovaFeatureEnroll"};
  std::copy_if(device.log.begin(), device.log.end(), std::back_inserter(hooked),
               [](const std::string &line) { return line.find("Max") == line.npos && line[2] != ' '; });
  EXPECT_EQ(hooked,
            (std::vector<std::string>{"Enter KelmTrovaFeatureEnroll", "Enter KelmTrovaFeatureEnroll", "lock", "unlock",
                                      "Enter KelmTrovaReadIndexFile", "lock", "unlock", "lock",
                                      "KelmTrovaFeatureEnroll SCardAPDU return retV=9000, dwRespLen=0", "unlock"}));
  const std::vector<std::string> index = {"80 F9 04 06 01", "80 F9 04 06 01", "00 A4 00 00 02 05 20", "00 B0 00 00 B0",
                                          "00 B0 00 B0 18"};
  std::vector<std::string> expected = index;
  expected.insert(expected.end(), {"00 A4 00 00 02 00 20", "00 B0 00 01 02", "80 E0 00 A0 07 28 03 88 EF EF FF FF",
                                   "00 A4 00 00 02 00 20", "00 D0 00 01 02 06 00", "80 FC 00 A0 02",
                                   "00 A4 00 00 02 05 20", "00 D0 00 28 14 01 42 00 A0 " + kUserData});
  EXPECT_EQ(sent(), expected);

  EXPECT_EQ(enroll(), 0U);  // again: in the same file
  expected = index;
  expected.insert(expected.end(), {"80 FC 00 A0 02", "00 A4 00 00 02 05 20", "00 D0 00 28 14 " + kEnrolled});
  EXPECT_EQ(sent(), expected);

  Guarded<std::uint8_t> read(200);
  EXPECT_EQ(KelmTrovaReadIndexFile(&kConnection, read.data()), 0U);
  EXPECT_EQ(Bytes(read.begin(), read.end()), token.files[kIndexFid]);
  sent();

  EXPECT_EQ(KelmTrovaDeleteFingerPrint(&kConnection, 3), 0U);
  expected = index;
  expected.insert(expected.end(), {"00 E4 00 00 02 00 A0", "00 A4 00 00 02 05 20", "00 D0 00 28 14 " + kFree});
  EXPECT_EQ(sent(), expected);
  EXPECT_EQ(KelmTrovaDeleteFingerPrint(&kConnection, 3), 0U);  // free already
  EXPECT_EQ(sent(), index);
  EXPECT_EQ(counter(), 6U);
  EXPECT_EQ(token.files.size(), 2U);
}

// A failure of ENROLL, and of anything else after the file was created: what is sent then (INS bytes), what stays in
// the entry and the counter, and the result when everything from there on fails.
TEST(Enrollment, CleansUp) {
  const struct {
    std::size_t failing;
    std::int32_t failure;
    std::string sentAfter, newEntry;
    std::uint64_t once, forGood;
  } cases[] = {{9, 0x6F00, "E4 ", kFree, 0x80006A0F, 0x80000102},
               {10, 0x6F00, "E4 ", kFree, 0x80006A0F, 0x80000102},
               {11, 0x6F00, "A4 D0 ", kReserved, 0x8000B001, 0x80000102},
               {11, 0x6983, "A4 D0 ", kReserved, 0x8000B001, 0x80000102},
               {11, 0x6A10, "A4 D0 ", kReserved, 0x80006A10, 0x80000102},
               {11, 0x6A82, "A4 D0 ", kReserved, 0x80006A82, 0x80000102},
               {11, 0x6982, "E4 A4 D0 ", kFree, 0x80006982, 0x80000102},
               {12, 0x6F00, "E4 ", kFree, 0x80000108, 0x80000102},
               {13, 0x6F00, "E4 ", kFree, 0x80000108, 0x80000102}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "exchange " << c.failing << " fails with " << c.failure);
    insertToken({.failing = c.failing, .failure = c.failure, .forGood = true});
    EXPECT_EQ(enroll(), c.forGood);
    insertToken({.failing = c.failing, .failure = c.failure});
    EXPECT_EQ(enroll(), c.once);
    EXPECT_EQ(device.log.back(), c.failing < 11 ? "unlock 0" : "unlock");
    std::string after;
    const auto commands = sent();
    for (std::size_t i = c.failing; i < commands.size(); ++i) {
      after += commands[i].substr(3, 3);
    }
    EXPECT_EQ(after, c.sentAfter);
    EXPECT_EQ(entry(3), c.newEntry);
    EXPECT_EQ(token.files.count(kFid), c.newEntry == kFree ? 0U : 1U);
    EXPECT_EQ(counter(), c.sentAfter.size() > 6 || c.failing < 11 ? 5U : 6U) << "set back with the file's removal";
  }
}

// A slot that has a file already: nothing but the file may change, and a file that is gone is made again.
TEST(Enrollment, FailsAgain) {
  for (const auto &[failure, result, last] :
       {std::tuple{0x6982, 0x80006982, "80 FC 00 A0 02"}, std::tuple{0xFFFF, 0x8000B001, "80 FC 00 A0 02"},
        std::tuple{0x6A82, 0x80000101, "80 E0 00 A0 07 28 03 88 EF EF FF FF"}}) {
    insertToken();
    enroll();
    sent();
    token.failing = device.exchanges + 6;
    token.failure = failure;
    const std::map<std::uint16_t, Bytes> before = token.files;
    EXPECT_EQ(enroll(), result);
    EXPECT_EQ(token.files, before);
    EXPECT_EQ(sent().back(), last);
  }
  token.files.erase(kFid);
  EXPECT_EQ(enroll(), 0x80006A82);
  EXPECT_EQ(entry(3), kEnrolled);
  EXPECT_EQ(enroll(), 0U);
}

TEST(Enrollment, FidCounterRange) {
  const std::pair<std::uint16_t, unsigned> accepted[] = {{1, 2}, {0x1F7, 0x1F8}, {0x1F8, 0x1FA}, {0x7FF, 0x800}};
  for (const auto &[value, next] : accepted) {
    insertToken();
    token.files[kCounterFid] = {0, static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)};
    EXPECT_EQ(enroll(), value == 1 ? 0x80000101 : 0U) << value;  // 0x0020 is the counter's own file
    EXPECT_EQ(counter(), value == 1 ? 1 : next);
  }
  for (const std::uint16_t value : std::initializer_list<std::uint16_t>{0, 0x800, 0x9F8, 0xFFFF}) {
    insertToken();
    token.files[kCounterFid] = {0, static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)};
    EXPECT_EQ(enroll(), 0x80006A0F) << value;
    EXPECT_EQ(device.exchanges, 7U);
  }
}

TEST(Enrollment, SlotsRecordsAndLocks) {
  for (const std::uint8_t slot : std::initializer_list<std::uint8_t>{0, 11, 255}) {
    insertToken();
    EXPECT_EQ(enroll(slot), 0x8000B002);
    EXPECT_EQ(KelmTrovaDeleteFingerPrint(&kConnection, slot), 0x8000B002);
    EXPECT_EQ(device.exchanges, 2U);
  }
  EXPECT_EQ(KelmTrovaFeatureEnroll(&kConnection, 1, nullptr), 0x8000B002);
  EXPECT_EQ(enroll(10), 0U);
  EXPECT_EQ(KelmTrovaFeatureEnroll(nullptr, 1, &kRecord), 0x80006A0F);
  EXPECT_EQ(KelmTrovaDeleteFingerPrint(nullptr, 1), 0x80009909);
  EXPECT_EQ(KelmTrovaReadIndexFile(nullptr, nullptr), 0x80009909);
  EXPECT_EQ(KelmTrovaReadIndexFile(&kConnection, nullptr), 0x80009902);

  insertToken();
  hooks.lockFails = 3;  // the lock around ENROLL
  EXPECT_EQ(enroll(), 0x80009909);
  EXPECT_EQ(device.log.back(), "unlock 0");
  EXPECT_EQ(sent().back(), "00 E4 00 00 02 00 A0");
  EXPECT_EQ(token.files.size(), 2U);
  EXPECT_EQ(enroll(), 0U);
  hooks = {};
  hooks.lockFails = 3;
  EXPECT_EQ(enroll(), 0x80009909);
  EXPECT_EQ(token.files.size(), 3U) << "the file was not made by this call";
  insertToken({.failing = 11, .failure = 0x6F00});  // the erasing of the new file
  hooks.lockFails = 3;
  EXPECT_EQ(enroll(), 0x80000102);
}

// The slot count is asked for twice; when the answers differ, nothing is done.
TEST(Enrollment, SlotCountThatChanges) {
  for (const std::uint8_t second : std::initializer_list<std::uint8_t>{0, 2, 9, 11, 255}) {
    for (const bool deletes : {false, true}) {
      insertToken();
      device.answer = [&](const Bytes &command) {
        token.slots = device.exchanges == 1 ? 10 : second;
        return token(command);
      };
      EXPECT_EQ(deletes ? KelmTrovaDeleteFingerPrint(&kConnection, 3) : enroll(), 0x80009902);
      EXPECT_EQ(device.exchanges, 2U);
    }
  }
  insertToken({.slots = 255, .files = {{kIndexFid, Bytes(5100, 0x33)}}});
  const Guarded<std::uint8_t> all(5100);
  EXPECT_EQ(KelmTrovaReadIndexFile(&kConnection, all.data()), 0U);
  EXPECT_EQ(all[5099], 0x33);
  token.slots = 0;
  EXPECT_EQ(KelmTrovaReadIndexFile(&kConnection, all.data()), 0x80009902);
}
