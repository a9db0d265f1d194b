// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <utility>

#include "kelmtrova/token.h"
#include "tests/support/device.h"
#include "tests/support/guarded.h"

using namespace kelm::test;

namespace {

// Fails the exchange `failing` (from 1) and answers the others with `data` bytes more or less than asked for.
void script(std::size_t failing, int surplus = 0) {
  device.log.clear();
  device.answer = [=](const Bytes &command) -> Answer {
    if (device.log.size() == failing) {
      return {.status = 0x6B00, .data = Bytes(200, 0xEE)};
    }
    const int asked = command[1] == 0xB0 ? command[4] + surplus : 0;
    return {.data = Bytes(static_cast<std::size_t>(std::max(asked, 0)), 0x5A)};
  };
}

}  // namespace

TEST(CardFile, ReadsInChunks) {
  const SCardConnection connection = readyConnection();
  const std::vector<std::string> commands = {"00 A4 00 00 02 05 20", "00 B0 01 00 B0", "00 B0 01 B0 B0",
                                             "00 B0 02 60 30"};
  const Bytes untouched(400, 0x11);
  for (std::size_t failing = 0; failing <= 4; ++failing) {
    const Guarded<std::uint8_t> out(std::span<const std::uint8_t>{untouched});
    script(failing);
    EXPECT_EQ(SCardReadBin(&connection, 0x0520, 0x0100, out.data(), 400), failing == 0 ? 1 : 0);
    EXPECT_EQ(Bytes(out.begin(), out.end()), Bytes(400, failing == 0 ? 0x5A : 0x11));
    EXPECT_EQ(device.log, std::vector(commands.begin(), commands.begin() + (failing == 0 ? 4 : int(failing))));
  }
  script(0);
  EXPECT_EQ(SCardReadBin(&connection, 0xFFFF, 0xFFF0, Guarded<std::uint8_t>(200).data(), 200), 1);
  EXPECT_EQ(device.log, (std::vector<std::string>{"00 B0 FF F0 B0", "00 B0 00 A0 18"}));
}

TEST(CardFile, AnswersOfAnotherLengthThanAskedFor) {
  const SCardConnection connection = readyConnection();
  for (const int surplus : {-200, -176, -1, 80}) {
    const Guarded<std::uint8_t> out(400);
    script(0, surplus);
    EXPECT_EQ(SCardReadBin(&connection, 0xFFFF, 0, out.data(), 400), 1);
    for (std::size_t i = 0; i < 400; ++i) {
      const int chunk = i < 352 ? 176 : 48;
      ASSERT_EQ(out[i], static_cast<int>(i % 176) < chunk + surplus ? 0x5A : 0) << i << ' ' << surplus;
    }
  }
}

TEST(CardFile, Writes) {
  const SCardConnection connection = readyConnection();
  Bytes data(177);
  std::iota(data.begin(), data.end(), std::uint8_t{0});
  const std::span<const std::uint8_t> all(data);
  const std::vector<std::string> commands = {"00 A4 00 00 02 05 20", "00 D0 FF 80 B0 " + hex(all.first(176)),
                                             "00 D0 00 30 01 B0"};
  for (std::size_t failing = 0; failing <= 3; ++failing) {
    script(failing);
    EXPECT_EQ(SCardUpdateBin(&connection, 0xABC0520, 0xABCFF80, data.data(), 177), failing == 0 ? 1 : 0);
    EXPECT_EQ(device.log, std::vector(commands.begin(), commands.begin() + (failing == 0 ? 3 : int(failing))));
  }
  script(0);
  EXPECT_EQ(SCardUpdateBin(&connection, 0xFFFF, 40, data.data(), 20), 1);
  EXPECT_EQ(device.log, std::vector<std::string>{"00 D0 00 28 14 " + hex(all.first(20))});
}

TEST(CardFile, CreatesAndErases) {
  const SCardConnection connection = readyConnection();
  const Bytes longest(255, 0x42);
  for (const bool fails : {false, true}) {
    device.log.clear();
    device.answer = [fails](const Bytes &) { return Answer{.status = fails ? 0x6A89 : 0x9000}; };
    EXPECT_EQ(SCardCreateFile(&connection, 0x0400, Bytes{1, 2, 3, 4, 5, 6, 7}.data(), 7), fails ? 0 : 1);
    EXPECT_EQ(SCardCreateFile(&connection, 0x0401, longest.data(), 255), fails ? 0 : 1);
    EXPECT_EQ(SCardCreateFile(&connection, 0x0402, nullptr, 0), fails ? 0 : 1);
    EXPECT_EQ(SCardEraseEF(&connection, 0x0400), fails ? 0 : 1);
    EXPECT_EQ(device.log,
              (std::vector<std::string>{"80 E0 04 00 07 01 02 03 04 05 06 07", "80 E0 04 01 FF " + hex(longest),
                                        "80 E0 04 02 00", "00 E4 00 00 02 04 00"}));
  }
}

TEST(CardFile, RefusesWithoutSending) {
  const SCardConnection connection = readyConnection();
  std::uint8_t byte = 7;
  script(0);
  EXPECT_EQ(SCardReadBin(&connection, 1, 0, nullptr, 1) + SCardReadBin(&connection, 1, 0, &byte, 0), 0);
  EXPECT_EQ(SCardUpdateBin(&connection, 1, 0, nullptr, 1) + SCardUpdateBin(&connection, 1, 0, &byte, 0), 0);
  EXPECT_EQ(SCardCreateFile(&connection, 1, nullptr, 1), 0);
  EXPECT_EQ(token_get_current_fid(&connection, nullptr), 0x80000107U);
  EXPECT_EQ(SCardReadBin(nullptr, 1, 0, &byte, 1) + SCardUpdateBin(nullptr, 1, 0, &byte, 1), 0);
  EXPECT_EQ(SCardEraseEF(nullptr, 1) + SCardCreateFile(nullptr, 1, &byte, 1), 0);
  EXPECT_EQ(token_set_next_fid(nullptr, 5), 0x80000107U);
  EXPECT_TRUE(device.log.empty());
  EXPECT_EQ(byte, 7);
}

TEST(CardFile, FidCounter) {
  const SCardConnection connection = readyConnection();
  const std::pair<Bytes, std::uint16_t> values[] = {
      {{0xF8, 0x01}, 0x01F9}, {{0x05, 0x00}, 5}, {{0xF8, 0x09}, 0x09F8}, {{0xFF, 0xFF}, 0xFFFF}};
  for (const auto &[bytes, value] : values) {
    device.log.clear();
    device.answer = [read = bytes](const Bytes &command) {
      return Answer{.data = command[1] == 0xB0 ? read : Bytes{}};
    };
    std::uint16_t counter = 0x7777;
    EXPECT_EQ(token_get_current_fid(&connection, &counter), 0U);
    EXPECT_EQ(counter, value);
    EXPECT_EQ(token_set_next_fid(&connection, 0x1234), 0U);
    EXPECT_EQ(device.log, (std::vector<std::string>{"00 A4 00 00 02 00 20", "00 B0 00 01 02", "00 A4 00 00 02 00 20",
                                                    "00 D0 00 01 02 34 12"}));
  }
  std::uint16_t counter = 0x7777;
  script(2);
  EXPECT_EQ(token_get_current_fid(&connection, &counter), 0x80000107U);
  EXPECT_EQ(counter, 0x7777);
  EXPECT_EQ(LittleEndian(), 1);
  EXPECT_EQ(ToBigEndian(0x1234), 0x3412);
  EXPECT_EQ(Exchange(0x12FE), 0xFE12);
}
