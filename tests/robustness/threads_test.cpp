// SPDX-License-Identifier: Apache-2.0
// Eight threads on distinct data get what one thread gets, and two connections do not disturb each other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fields.h"
#include "tests/support/simulated.h"

namespace {

constexpr std::int16_t kHeight = 120;
constexpr std::int16_t kWidth = 96;

std::vector<std::uint8_t> ridges(std::uint32_t seed) {
  kelm::test::Random random(seed);
  return kelm::test::picture(kHeight, kWidth,
                             [&](int x, int y) { return random(32) + ((x + 2 * y) % 9 < 5 ? 190 : 60); });
}

void append(std::string &log, const auto *samples, std::size_t count) {
  log.append(reinterpret_cast<const char *>(samples), count * sizeof(*samples));
}

// The results of the toolkit's main stages on one picture, one after the other.
std::string analyse(std::uint32_t seed) {
  const auto source = ridges(seed);
  std::string log;
  auto work = source;
  ImageNormalize(work.data(), kHeight, kWidth, 128, 2000);
  log.append(work.begin(), work.end());
  std::vector<std::int32_t> wide(source.begin(), source.end());
  fvs_ImageMeanInt2Int(wide.data(), wide.data(), kHeight, kWidth, 9, 7);
  append(log, wide.data(), wide.size());
  work = source;
  log += std::to_string(FpThresholdingGradsImage(work.data(), kHeight, kWidth));
  RemoveSmallArea(work.data(), kHeight, kWidth, 255, 0, 20);
  log.append(work.begin(), work.end());
  kelm::test::DirectionFields fields;
  fields.compute(source.data(), {kHeight, kWidth, 2 * kHeight, 2 * kWidth, 9});
  append(log, fields.products, source.size());
  append(log, fields.differences, source.size());
  for (const auto *field : {&fields.direction8, &fields.orientGrad, &fields.direction16}) {
    append(log, field->data, std::size_t{field->rows} * field->cols);
  }
  std::uint8_t *period = nullptr;
  FpGetFrequency(source.data(), kHeight, kWidth, &fields.direction8, &period);
  append(log, period, std::size_t{kHeight / 4} * (kWidth / 4));
  std::free(period);
  BlockQualityMap map{};
  ImageBlkQuality(&map, source.data(), kHeight, kWidth, 0);
  append(log, map.grades, std::size_t{map.rows} * map.cols);
  std::free(map.grades);
  log += std::to_string(NotContinue(source.data(), kHeight, kWidth, 200));
  return log;
}

TEST(Threads, ToolkitGivesTheSameOnEight) {
  constexpr std::uint32_t kThreads = 8;
  std::vector<std::string> alone(kThreads);
  std::vector<std::string> together(kThreads);
  for (std::uint32_t i = 0; i < kThreads; ++i) {
    alone[i] = analyse(i);
  }
  ASSERT_NE(alone[0], alone[1]);
  std::vector<std::thread> threads;
  for (std::uint32_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &together] {
      for (int round = 0; round < 10; ++round) {
        together[i] = analyse(i);
      }
    });
  }
  for (auto &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(alone, together);
}

// Enrolls, matches and deletes on a token of its own; the count of calls that went as they should.
void useToken(int number, int *right) {
  const kelm::test::SimulatedToken token({5, 0, 0, nullptr});
  for (std::uint8_t round = 0; round < 50; ++round) {
    const auto slot = static_cast<std::uint8_t>(1 + round % 5);
    std::uint8_t matched = 0;
    std::uint8_t tries = 0;
    token.present("finger " + std::to_string(number));
    *right += token.enroll(slot) == 0 ? 1 : 0;
    *right += KelmTrovaFeatureIdentify(&token.connection, 0, &matched, &tries) == 0 && matched == slot ? 1 : 0;
    *right += KelmTrovaDeleteFingerPrint(&token.connection, slot) == 0 ? 1 : 0;
  }
}

TEST(Threads, TwoConnections) {
  int right[2] = {0, 0};
  std::thread first(useToken, 1, &right[0]);
  std::thread second(useToken, 2, &right[1]);
  first.join();
  second.join();
  EXPECT_EQ(right[0], 150);
  EXPECT_EQ(right[1], 150);
}

}  // namespace
