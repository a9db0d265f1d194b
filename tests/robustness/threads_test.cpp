// Eight threads on distinct data get what one thread gets, and two connections do not disturb each other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kelmtrova/image.h"
#include "kelmtrova/token.h"
#include "platform/simulator.h"

namespace {

constexpr std::int16_t kHeight = 120;
constexpr std::int16_t kWidth = 96;

std::vector<std::uint8_t> picture(std::uint32_t seed) {
  std::vector<std::uint8_t> pixels(std::size_t{kHeight} * kWidth);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    seed = seed * 1664525U + 1013904223U;
    const std::size_t ridge = (i % kWidth + 2 * (i / kWidth)) % 9 < 5 ? 190 : 60;
    pixels[i] = static_cast<std::uint8_t>(ridge + (seed >> 27));
  }
  return pixels;
}

void append(std::string &log, void *block, std::size_t bytes) {
  log.append(static_cast<const char *>(block), bytes);
  std::free(block);
}

// The results of the toolkit's main stages on one picture, one after the other.
std::string analyse(std::uint32_t seed) {
  const auto source = picture(seed);
  std::string log;
  auto work = source;
  ImageNormalize(work.data(), kHeight, kWidth, 128, 2000);
  log.append(work.begin(), work.end());
  std::vector<std::int32_t> wide(source.begin(), source.end());
  fvs_ImageMeanInt2Int(wide.data(), wide.data(), kHeight, kWidth, 9, 7);
  log.append(reinterpret_cast<const char *>(wide.data()), wide.size() * sizeof(wide[0]));
  work = source;
  log += std::to_string(FpThresholdingGradsImage(work.data(), kHeight, kWidth));
  RemoveSmallArea(work.data(), kHeight, kWidth, 255, 0, 20);
  log.append(work.begin(), work.end());
  std::int32_t *products = nullptr;
  std::int32_t *differences = nullptr;
  FingerprintBlockField fine{};
  FingerprintBlockField change{};
  FingerprintBlockField coarse{};
  FingerprintGetDirectionFloat(source.data(), kHeight, kWidth, 2 * kHeight, 2 * kWidth, 9, 0, &products, &differences,
                               &fine, &change, &coarse);
  std::uint8_t *period = nullptr;
  FpGetFrequency(source.data(), kHeight, kWidth, &fine, &period);
  append(log, period, std::size_t{kHeight / 4} * (kWidth / 4));
  append(log, products, source.size() * sizeof(*products));
  append(log, differences, source.size() * sizeof(*differences));
  for (auto *field : {&fine, &change, &coarse}) {
    append(log, field->data, std::size_t{field->rows} * field->cols * sizeof(*field->data));
  }
  BlockQualityMap map{};
  ImageBlkQuality(&map, source.data(), kHeight, kWidth, 0);
  append(log, map.grades, std::size_t{map.rows} * map.cols);
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
  const SimulatorPersonalisation personalisation{5, 0, 0, nullptr};
  const SCardConnection connection{3, {}, simulatorOpenInMemory(&personalisation), 1};
  const std::string finger = "finger " + std::to_string(number);
  simulatorPlaceFinger(connection.hDevice, finger.data(), finger.size());
  for (std::uint8_t round = 0; round < 50; ++round) {
    const auto slot = static_cast<std::uint8_t>(1 + round % 5);
    const TemplateIndexEntry record{0, round, 0, {}};
    std::uint8_t matched = 0;
    std::uint8_t tries = 0;
    KelmTrovaCaptureImage(&connection);
    KelmTrovaFeatureExtract(&connection, 1);
    *right += KelmTrovaFeatureEnroll(&connection, slot, &record) == 0 ? 1 : 0;
    *right += KelmTrovaFeatureIdentify(&connection, 0, &matched, &tries) == 0 && matched == slot ? 1 : 0;
    *right += KelmTrovaDeleteFingerPrint(&connection, slot) == 0 ? 1 : 0;
  }
  simulatorClose(connection.hDevice);
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
