// SPDX-License-Identifier: Apache-2.0
// Every command of one exchange: its bytes, traces and lock, its outcome for each status word, and hostile answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "tests/support/allocation.h"
#include "tests/support/guarded.h"
#include "tests/token/hooks.h"

using namespace kelm::test;

namespace {

constexpr std::uint8_t kUntouched = 0xA5;
constexpr std::uint64_t kUnlisted = 0x8000B001;
using Handle = const SCardConnection *;

struct Row {
  const char *name;
  std::function<std::uint64_t(Handle, std::uint8_t *out)> call;
  const char *command;
  std::vector<std::uint32_t> passedOn;
  bool getter = false;
  std::uint64_t otherwise = kUnlisted;
  std::uint64_t notLocked = 0x80009909;
};

template <std::uint64_t (*function)(Handle, std::uint8_t *)>
std::uint64_t get(Handle handle, std::uint8_t *out) {
  return function(handle, out);
}

template <std::uint64_t (*function)(Handle, std::uint8_t), std::uint8_t value>
std::uint64_t set(Handle handle, std::uint8_t *) {
  return function(handle, value);
}

template <std::uint64_t (*function)(Handle)>
std::uint64_t plain(Handle handle, std::uint8_t *) {
  return function(handle);
}

std::uint64_t isTrova(Handle handle, std::uint8_t *) { return static_cast<std::uint64_t>(KelmIsTrova(handle)) ^ 1; }

const Row kRows[] = {
    {"KelmIsTrova", isTrova, "80 FA 02 00 2F", {}, false, 1, 1},
    {"KelmTrovaSelfTest", plain<KelmTrovaSelfTest>, "80 FA 01 00 02", {0x6AFA}},
    {"KelmTrovaGetMaxTmpltNum", get<KelmTrovaGetMaxTmpltNum>, "80 F9 04 06 01", {0x6982}, true},
    {"", plain<KelmTrovaCaptureImage>, "80 FA 00 00 02", {0x6A0E}, false, 0x80006A09, 0x80006A09},
    {"KelmTrovaFeatureExtract",
     set<KelmTrovaFeatureExtract, 3>,
     "80 FB 00 03 02",
     {0x6982, 0x6A07, 0x6A08, 0x6A0B, 0x6A11}},
    {"KelmTrovaSetVerifyMode", set<KelmTrovaSetVerifyMode, 2>, "80 FE 00 06 01 02", {0x6581, 0x6982, 0x6983, 0x6A18}},
    {"KelmTrovaGetVerifyMode", get<KelmTrovaGetVerifyMode>, "80 FE 01 06 01", {0x6983}, true},
    {"KelmTrovaSetTimeOut", set<KelmTrovaSetTimeOut, 9>, "80 F9 06 06 01 09", {0x6581, 0x6982, 0x6983}},
    {"KelmTrovaGetTimeOut", get<KelmTrovaGetTimeOut>, "80 F9 05 06 01", {0x6983}, true},
    {"KelmTrovaSetSecLevel", set<KelmTrovaSetSecLevel, 5>, "80 F9 08 06 01 05", {0x6581, 0x6982, 0x6983}},
    {"KelmTrovaGetSecLevel", get<KelmTrovaGetSecLevel>, "80 F9 07 06 01", {0x6983}, true},
    {"KelmTrovaSetImageGain", set<KelmTrovaSetImageGain, 0xFF>, "80 F9 0B 06 01 FF", {0x6581, 0x6982, 0x6983}},
    {"KelmTrovaGetImageGain", get<KelmTrovaGetImageGain>, "80 F9 0A 06 01", {0x6983}, true},
    {"KelmTrovaGetSecState", get<KelmTrovaGetSecState>, "80 F9 09 00 01", {0x6982}, true},
    {"KelmTrovaGetFingerCacheState", get<KelmTrovaGetFingerCacheState>, "80 F9 00 06 01", {}, true},
    {"KelmTrovaClearFingerCache", plain<KelmTrovaClearFingerCache>, "80 F9 01 06 01", {}},
    {"KelmTrovaEnableFingerCache", set<KelmTrovaEnableFingerCache, 1>, "80 F9 02 06 01", {0x6581, 0x6982, 0x6983}},
    {"KelmTrovaEnableFingerCache", set<KelmTrovaEnableFingerCache, 0>, "80 F9 03 06 01", {0x6581, 0x6982, 0x6983}},
};

std::uint64_t expectedResult(const Row &row, std::uint32_t status) {
  if (status == 0x9000) {
    return 0;
  }
  if (status == 0x9909) {
    return row.notLocked;
  }
  const bool passed = std::find(row.passedOn.begin(), row.passedOn.end(), status) != row.passedOn.end();
  return passed ? 0x80000000 + status : row.otherwise;
}

// What a getter leaves in its output unless it succeeds.
std::uint8_t left(const Row &row) { return std::strcmp(row.name, "KelmTrovaGetSecState") == 0 ? 0 : kUntouched; }

std::string enter(const Row &row) { return std::string("Enter ") + row.name; }

}  // namespace

TEST(Command, EveryStatusWord) {
  const SCardConnection connection = readyConnection();
  for (const Row &row : kRows) {
    restart();
    device.fixed = Answer{.data = {0x5A, 0x77}};
    for (std::uint32_t status = 0; status <= 0xFFFF; ++status) {
      device.fixed->status = static_cast<std::int32_t>(status);
      std::uint8_t out = kUntouched;
      ASSERT_EQ(row.call(&connection, &out), expectedResult(row, status)) << row.name << ' ' << status;
      ASSERT_EQ(out, !row.getter ? kUntouched : status == 0x9000 ? 0x5A : left(row)) << row.name << ' ' << status;
    }
  }
}

TEST(Command, SequenceLockAndEmptyAnswers) {
  const SCardConnection connection = readyConnection();
  for (const Row &row : kRows) {
    restart();
    std::uint8_t out = kUntouched;
    EXPECT_EQ(row.call(&connection, &out), 0U) << row.name;
    EXPECT_EQ(out, row.getter ? 0 : kUntouched) << row.name;
    std::vector<std::string> expected = {"lock", row.command, "unlock"};
    if (*row.name != '\0') {
      expected.insert(expected.begin(), enter(row));
      expected.insert(expected.end() - 1, std::string(row.name) + " SCardAPDU return retV=9000, dwRespLen=0");
    }
    EXPECT_EQ(device.log, expected);

    // Bytes in the buffer that do not belong to the answer are not taken for its data.
    hooks.apdu = [](std::uint8_t *, std::uint64_t, std::uint8_t *response, std::uint64_t *responseLength) {
      response[0] = 0x77;
      *responseLength = 0;
      return 0x9000U;
    };
    EXPECT_EQ(row.call(&connection, &out), 0U) << row.name;
    EXPECT_EQ(out, row.getter ? 0 : kUntouched) << row.name;

    restart();
    out = kUntouched;
    EXPECT_EQ(row.call(nullptr, &out), row.notLocked) << row.name;
    EXPECT_EQ(out, row.getter ? left(row) : kUntouched) << row.name;
    EXPECT_EQ(device.log, *row.name == '\0' ? std::vector<std::string>{} : std::vector<std::string>{enter(row)});
    if (row.getter) {
      EXPECT_EQ(row.call(&connection, nullptr), 0x8000B002) << row.name;
      EXPECT_EQ(device.exchanges, 0U) << row.name;
    }
  }
}

TEST(Command, ArgumentsOutOfRange) {
  const SCardConnection connection = readyConnection();
  for (int value = 0; value <= 255; ++value) {
    const auto byte = static_cast<std::uint8_t>(value);
    restart();
    EXPECT_EQ(KelmTrovaFeatureExtract(&connection, byte), value >= 1 && value <= 3 ? 0 : 0x8000B002) << value;
    EXPECT_EQ(KelmTrovaSetVerifyMode(&connection, byte), value <= 2 ? 0 : 0x8000B002) << value;
    EXPECT_EQ(KelmTrovaEnableFingerCache(nullptr, byte), 0x80009909);
    device.log.clear();
    EXPECT_EQ(KelmTrovaEnableFingerCache(&connection, byte), value <= 1 ? 0 : 0x8000B002) << value;
    if (value > 3) {
      EXPECT_EQ(device.exchanges, 0U);
      EXPECT_EQ(device.log, (std::vector<std::string>{"Enter KelmTrovaEnableFingerCache", "lock", "unlock"}));
    }
  }
}

TEST(Command, DeviceInformation) {
  const SCardConnection connection = readyConnection();
  for (const std::uint64_t length : {0U, 1U, 47U, 256U, 300U}) {
    for (const std::uint32_t status : {0x9000U, 0x6AFBU, 0x6982U, 0xFFFFU}) {
      restart();
      hooks.apdu = [&](std::uint8_t *, std::uint64_t, std::uint8_t *response, std::uint64_t *responseLength) {
        EXPECT_EQ(*responseLength, 2048U);
        std::memset(response, 0x5A, length);
        *responseLength = length == 300 ? ~0ULL : length;
        return status;
      };
      const Guarded<std::uint8_t> info(256);
      std::uint64_t infoLength = 7;
      EXPECT_EQ(KelmTrovaGetDeviceInfo(&connection, info.data(), &infoLength), status == 0x9000   ? 0
                                                                               : status == 0x6AFB ? 0x80006AFB
                                                                                                  : kUnlisted);
      ASSERT_EQ(infoLength, std::min<std::uint64_t>(length, 256));
      EXPECT_EQ(static_cast<std::uint64_t>(std::count(info.begin(), info.end(), 0x5A)), infoLength);
    }
  }
  restart(0x9000, Bytes(47, 1));
  std::uint8_t info[256] = {};
  std::uint64_t infoLength = 7;
  EXPECT_EQ(KelmTrovaGetDeviceInfo(nullptr, info, &infoLength), 0x80009909);
  EXPECT_EQ(infoLength, 7U);
  EXPECT_EQ(KelmTrovaGetDeviceInfo(&connection, nullptr, &infoLength), 0x8000B002);
  EXPECT_EQ(KelmTrovaGetDeviceInfo(&connection, info, nullptr), 0x8000B002);
  device.log.clear();
  EXPECT_EQ(KelmTrovaGetDeviceInfo(&connection, info, &infoLength), 0U);
  EXPECT_EQ(infoLength, 47U);
  EXPECT_EQ(device.log,
            (std::vector<std::string>{"Enter KelmTrovaGetDeviceInfo", "lock", "80 FA 02 00 2F",
                                      "KelmTrovaGetDeviceInfo SCardAPDU return retV=9000, dwRespLen=47", "unlock"}));
}

// Nothing that comes back makes a command write outside its buffers, and none of them takes memory from the heap.
TEST(Command, LongAnswersAndNoHeap) {
  const SCardConnection connection = readyConnection();
  const Answer tooMuch = {.data = Bytes(256, 0x5A), .claimed = ~0ULL};
  const Answer more = {.status = 0x61FF};
  for (const Row &row : kRows) {
    restart();
    for (const Answer *answer : {&tooMuch, &more}) {
      device.fixed = *answer;
      device.exchanges = 0;
      std::uint8_t out = 0;
      AllocationWatch watch;
      row.call(&connection, &out);
      EXPECT_EQ(watch.allocations(), 0U) << row.name;
      EXPECT_EQ(device.exchanges, answer == &more ? 2U : 1U) << row.name;
    }
    restart();
    std::uint8_t out = kUntouched;
    hooks.apdu = [](std::uint8_t *, std::uint64_t, std::uint8_t *response, std::uint64_t *responseLength) {
      std::memset(response, 0x5A, 8190);
      *responseLength = ~0ULL;
      return 0x9000U;
    };
    EXPECT_EQ(row.call(&connection, &out), 0U);
    EXPECT_EQ(out, row.getter ? 0x5A : kUntouched) << row.name;
  }
}
