// SPDX-License-Identifier: Apache-2.0
// The download against a plain picture of what the token must receive.
#include <gtest/gtest.h>

#include <utility>

#include "tests/support/guarded.h"
#include "tests/token/hooks.h"

using namespace kelm::test;

namespace {

TokenImage imageOf(std::uint64_t lines, std::uint64_t lineLength, const std::uint8_t *pixels) {
  return {lines, lineLength, 0, pixels};
}

// Every command, line by line: no arithmetic of blocks. `more`: the status is fetched by GET RESPONSE.
std::vector<std::string> expectedLog(const TokenImage &image, bool more) {
  std::vector<std::string> log = {"Enter KelmTrovaDownloadImage", "lock"};
  Bytes block;
  std::uint64_t first = 0;
  std::uint64_t number = 0;
  const auto flush = [&](std::uint64_t next, bool full) {
    const auto low = static_cast<std::uint8_t>(first & 0xFF);
    const auto high = static_cast<std::uint8_t>(first >> 8);
    const auto lines = static_cast<std::uint8_t>(next - first);
    Bytes command = {0x80, 0xF7, 1, 0, static_cast<std::uint8_t>(block.size() + 8), low, high, 0, 0, lines, 0, 0, 0};
    command.insert(command.end(), block.begin(), block.end());
    log.push_back(hex(command));
    if (more) {
      log.push_back("00 C0 00 00 01");
    }
    log.push_back("KelmTrovaDownloadImage " + (full ? "Loop No: " + std::to_string(number++) + "," : "rest line") +
                  " SCardAPDU return retV=9000, dwRespLen=1");
    first = next;
    block.clear();
  };
  for (std::uint64_t line = 0; line < image.dwLines; ++line) {
    const std::uint8_t *const pixels = image.pbPixels + line * image.dwLineLen;
    block.insert(block.end(), pixels, pixels + image.dwLineLen);
    if (block.size() + image.dwLineLen > 240) {
      flush(line + 1, true);
    }
  }
  if (!block.empty()) {
    flush(image.dwLines, false);
  }
  log.push_back("unlock");
  return log;
}

}  // namespace

TEST(ImageTransfer, ManyGeometries) {
  const SCardConnection connection = readyConnection();
  for (const std::uint64_t lineLength : {1U, 2U, 7U, 64U, 79U, 80U, 81U, 100U, 120U, 121U, 239U, 240U}) {
    for (const std::uint64_t lines : {1U, 2U, 3U, 5U, 100U, 241U, 603U}) {
      const Guarded<std::uint8_t> pixels(lines * lineLength);
      for (std::size_t i = 0; i < pixels.size(); ++i) {
        pixels[i] = static_cast<std::uint8_t>(i * 31 + i / 256);
      }
      const TokenImage image = imageOf(lines, lineLength, pixels.data());
      const bool more = lines % 2 == 0;
      restart();
      device.answer = [more](const Bytes &command) {
        return Answer{.status = more && command[1] == 0xF7 ? 0x6101 : 0x9000, .data = {0x77}};
      };
      ASSERT_EQ(KelmTrovaDownloadImage(&connection, &image), 0U);
      ASSERT_EQ(device.log, expectedLog(image, more)) << lineLength << " x " << lines;
    }
  }
}

TEST(ImageTransfer, RefusalEndsIt) {
  const SCardConnection connection = readyConnection();
  const Bytes pixels(6400);
  const TokenImage image = imageOf(100, 64, pixels.data());  // 33 full blocks and one line
  const std::pair<std::int32_t, std::uint64_t> results[] = {
      {0x6700, 0x80006700}, {0x6A80, 0x80006A80}, {0x6AFB, 0x80006AFB}, {0x6B00, 0x80006B00},
      {0x9909, 0x80009909}, {0, 0x8000B001},      {0x6982, 0x8000B001}, {0xFFFF, 0x8000B001}};
  for (const auto &[status, result] : results) {
    for (const std::uint64_t refused : {1U, 3U, 33U, 34U}) {
      restart();
      device.answer = [refused, failure = status](const Bytes &) {
        return Answer{.status = device.exchanges == refused ? failure : 0x9000};
      };
      EXPECT_EQ(KelmTrovaDownloadImage(&connection, &image), result);
      EXPECT_EQ(device.exchanges, refused);
      EXPECT_EQ(device.log.back(), "unlock");
    }
  }
}

TEST(ImageTransfer, WhatIsRefusedUnsent) {
  const SCardConnection connection = readyConnection();
  const Bytes pixels(240);
  const struct {
    const SCardConnection *handle;
    TokenImage image;
    std::uint64_t result;
  } cases[] = {{&connection, imageOf(1, 241, pixels.data()), 0x80009903},
               {&connection, imageOf(1, 0, pixels.data()), 0x80009903},
               {nullptr, imageOf(1, 241, pixels.data()), 0x80009903},
               {nullptr, imageOf(1, 240, pixels.data()), 0x80009909},
               {&connection, imageOf(0, 240, nullptr), 0x8000B001},
               {&connection, imageOf(1, 240, nullptr), 0x8000B002},
               {&connection, imageOf(65537, 240, pixels.data()), 0x8000B002},
               {&connection, imageOf(65761, 1, pixels.data()), 0x8000B002},
               {&connection, imageOf(~0ULL, 120, pixels.data()), 0x8000B002}};
  for (const auto &expected : cases) {
    restart();
    EXPECT_EQ(KelmTrovaDownloadImage(expected.handle, &expected.image), expected.result);
    EXPECT_EQ(device.exchanges, 0U);
    EXPECT_EQ(device.log.front(), "Enter KelmTrovaDownloadImage");
    EXPECT_NE(device.log.back(), "lock");
  }
  EXPECT_EQ(KelmTrovaDownloadImage(&connection, nullptr), 0x8000B002);
  // The largest images: the last block starts at line 65535, or at 65520 with 240 lines.
  for (const auto &[lines, lineLength] : {std::pair{65536U, 240U}, std::pair{65760U, 1U}}) {
    const Bytes large(std::size_t{lines} * lineLength);
    const TokenImage image = imageOf(lines, lineLength, large.data());
    restart();
    device.fixed = Answer{};
    EXPECT_EQ(KelmTrovaDownloadImage(&connection, &image), 0U);
    EXPECT_EQ(device.exchanges, lineLength == 240 ? 65536U : 274U);
  }
  restart();
  EXPECT_EQ(KelmTrovaUploadImage(nullptr, 5), 0U);
  EXPECT_TRUE(device.log.empty());
}
