// Every exported function that allocates, with its first, second, third ... allocation failing until it succeeds: the
// stated result, the outputs as stated, nothing leaked, nothing written outside.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "kelmtrova/image.h"
#include "kelmtrova/token.h"
#include "platform/simulator.h"
#include "tests/support/allocation.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::AllocationWatch;
using kelm::test::Guarded;

constexpr std::int16_t kHeight = 37;
constexpr std::int16_t kWidth = 53;
constexpr std::size_t kPixels = std::size_t{kHeight} * kWidth;

// Pictures that make every stage work: blobs of 0 and 255 with grey in between.
template <typename T>
std::vector<T> picture() {
  std::vector<T> samples(kPixels);
  for (std::size_t i = 0; i < kPixels; ++i) {
    const std::size_t x = i % kWidth;
    const std::size_t y = i / kWidth;
    samples[i] = static_cast<T>((x / 5 + y / 4) % 3 == 0 ? 255 : (x * 7 + y * 3) % 251);
  }
  return samples;
}

struct Case {
  const char *name;
  int allocations;                  // how many it makes at the least
  std::function<bool(bool)> check;  // calls it and tells whether all is as stated, memory having failed or not
};

// A function on one picture in place that answers `failure` and leaves the picture alone when memory fails.
template <typename T, typename Function>
Case inPlace(const char *name, Function function, int failure) {
  return {name, 1, [=](bool failed) {
            static const auto source = picture<T>();
            static const Guarded<T> samples{std::span<const T>(source)};
            std::copy(source.begin(), source.end(), samples.data());
            const int result = function(samples.data());
            return failed ? result == failure && std::equal(source.begin(), source.end(), samples.data())
                          : result != 1 && (failure != 1 || result == 0);
          }};
}

// A function from one picture to another that answers 1 when memory fails; `untouched` when it then wrote nothing.
template <typename Out, typename In, typename Function>
Case outOfPlace(const char *name, Function function, bool untouched = true) {
  return {name, 1, [=](bool failed) {
            static const auto source = picture<In>();
            static const Guarded<Out> out(kPixels);
            std::fill(out.begin(), out.end(), Out{77});
            const int result = function(out.data(), source.data());
            const bool same = std::all_of(out.begin(), out.end(), [](Out sample) { return sample == Out{77}; });
            return failed ? result == 1 && (same || !untouched) : result == 0 && !same;
          }};
}

// A function that hands back a block of its own, or null when memory fails.
template <typename Function>
Case handsBack(const char *name, Function function) {
  return {name, 1, [=](bool failed) {
            void *block = function();
            std::free(block);
            return (block == nullptr) == failed;
          }};
}

std::vector<std::uint8_t> grey = picture<std::uint8_t>();

bool growsAll(bool failed) {
  static const Guarded<std::uint8_t> samples{std::span<const std::uint8_t>(grey)};
  std::copy(grey.begin(), grey.end(), samples.data());
  std::uint32_t area = 1;
  std::int16_t box[4];
  RegionGrow(samples.data(), kHeight, kWidth, 0, 0, &area, &box[0], &box[1], &box[2], &box[3], 255, 7, 1);
  return failed ? area == 0 && std::equal(grey.begin(), grey.end(), samples.data()) : area > 0;
}

// An area that could not be measured stays: whatever changed is an area that the full run erases too.
bool removesAreas(bool failed) {
  static std::vector<std::uint8_t> whole;
  static std::vector<std::uint8_t> samples;
  samples = grey;
  const int result = RemoveSmallArea(samples.data(), kHeight, kWidth, 255, 9, 25);
  if (!failed) {
    whole = samples;
    return result == 0 && whole != grey;
  }
  for (std::size_t i = 0; i < kPixels; ++i) {
    if (samples[i] != grey[i] && samples[i] != 9) {
      return false;
    }
  }
  return result == 1;
}

bool directions(bool failed) {
  std::int32_t *products = nullptr;
  std::int32_t *differences = nullptr;
  FingerprintBlockField fine{};
  FingerprintBlockField change{};
  FingerprintBlockField coarse{};
  const int result =
      FingerprintGetDirectionFloat(grey.data(), 32, 48, 64, 96, 9, 0, &products, &differences, &fine, &change, &coarse);
  const bool whole = products != nullptr && differences != nullptr && fine.data != nullptr && change.data != nullptr &&
                     coarse.data != nullptr;
  for (void *block : {static_cast<void *>(products), static_cast<void *>(differences), static_cast<void *>(fine.data),
                      static_cast<void *>(change.data), static_cast<void *>(coarse.data)}) {
    std::free(block);
  }
  return failed ? result == 1 : result == 0 && whole;
}

bool changeField(bool failed) {
  std::int16_t samples[6] = {0, 10, 20, -30, 40, 90};
  const FingerprintBlockField input{8, 2, 3, samples};
  FingerprintBlockField output{};
  const int result = FingerprintOrientGrad(&output, &input);
  std::free(output.data);
  return result == (failed ? 1 : 0);
}

bool period(bool failed) {
  std::int16_t samples[4] = {0, 10, 20, -30};
  const FingerprintBlockField field{8, 2, 2, samples};
  std::uint8_t *map = nullptr;
  const int result = FpGetFrequency(grey.data(), kHeight, kWidth, &field, &map);
  const bool marked =
      map == nullptr || std::all_of(map, map + (kHeight / 4) * (kWidth / 4), [](std::uint8_t v) { return v == 255; });
  std::free(map);
  return failed ? result == 1 && marked : result == 0;
}

bool oneGradient(bool failed) {
  std::uint16_t *map = reinterpret_cast<std::uint16_t *>(&failed);
  const std::uint32_t result = FpGetImg4DirectionGrads(grey.data(), kHeight, kWidth, &map, 1, 4);
  std::free(map);
  return failed ? result == 1 && map == nullptr : result == 0 && map != nullptr;
}

bool fourGradients(bool failed) {
  std::uint16_t **maps = FpGetImg4DirectionGradsEx(grey.data(), kHeight, kWidth, 4);
  for (int d = 0; maps != nullptr && d < 4; ++d) {
    std::free(maps[d]);
  }
  std::free(maps);
  return (maps == nullptr) == failed;
}

bool blockQuality(bool failed) {
  BlockQualityMap map{};
  const std::uint32_t result = ImageBlkQuality(&map, grey.data(), kHeight, kWidth, 0);
  const bool zero = map.grades == nullptr ||
                    std::all_of(map.grades, map.grades + map.rows * map.cols, [](std::uint8_t g) { return g == 0; });
  std::free(map.grades);
  return failed ? result == 1 && zero : result == 0 && !zero;
}

bool rotations(bool failed) {
  AxisPoint **tables = AxisTransform(6, 5, 5);
  AxisDestroy(tables, 6);
  return (tables == nullptr) == failed;
}

bool stack(bool failed) {
  ZooList list{};
  zooInitList(&list, 4);
  const int pushed = zooPush(&list, 1);
  zooClearup(&list);
  return pushed == (failed ? 0 : 1);
}

// The picture of the bars is whole or not there: whole also where only the stream did without its buffer.
bool bars(bool failed) {
  static const std::string path = testing::TempDir() + "bars-" + std::to_string(getpid()) + ".raw";
  const std::uint32_t counters[3] = {1, 2, 3};
  const int result = HistogramPrint(counters, 3, path.c_str());
  struct stat file = {};
  const bool there = stat(path.c_str(), &file) == 0;
  unlink(path.c_str());
  return result == 0 && (there ? file.st_size == 3 * 256 : failed);
}

void everyAllocation(const std::vector<Case> &cases) {
  for (const Case &job : cases) {
    for (std::uint64_t failing = 1;; ++failing) {
      ASSERT_LT(failing, 100U) << job.name;
      job.check(false);  // whatever a call keeps for good is taken here
      bool right = false;
      std::int64_t outstanding = 0;
      bool failed = false;
      {
        // Whether this allocation is reached is not known before: the number of them is counted first.
        std::uint64_t count = 0;
        {
          const AllocationWatch watch;
          job.check(false);
          count = watch.allocations();
          EXPECT_EQ(watch.outstanding(), 0) << job.name;
        }
        EXPECT_GE(count, static_cast<std::uint64_t>(job.allocations)) << job.name;
        failed = failing <= count;
        const AllocationWatch watch(failing);
        right = job.check(failed);
        outstanding = watch.outstanding();
        failed = watch.failed();
      }
      EXPECT_TRUE(right) << job.name << ", allocation " << failing << (failed ? " fails" : ": none fails");
      EXPECT_EQ(outstanding, 0) << job.name << " leaks when allocation " << failing << " fails";
      if (!failed) {
        break;
      }
    }
  }
}

#define SUM(function, Out, In) \
  outOfPlace<Out, In>(#function, [](Out *out, const In *in) { return function(out, in, kHeight, kWidth, 5, 3); })
#define MASK(function, T) \
  inPlace<T>(             \
      #function, [](T *mask) { return function(mask, kHeight, kWidth, 3, 3); }, 1)

TEST(ExhaustedMemory, Toolkit) {
  everyAllocation({
      handsBack("ImageEnlarge", [] { return ImageEnlarge(grey.data(), kHeight, kWidth, 2 * kHeight, 2 * kWidth); }),
      handsBack("ImageReduce", [] { return ImageReduce(grey.data(), kHeight, kWidth, kHeight / 2, kWidth / 2); }),
      handsBack("HistogramCreate", [] { return HistogramCreate(); }),
      handsBack("HistogramCompute", [] { return HistogramCompute(grey.data(), kHeight, kWidth); }),
      inPlace<std::uint8_t>(
          "ImageNormalize", [](auto *p) { return ImageNormalize(p, kHeight, kWidth, 99, 400); }, 0),
      {"HistogramPrint", 1, bars},
      {"AxisTransform", 8, rotations},
      SUM(fvs_ImageLocalSumChar2Char, std::uint8_t, std::uint8_t),
      outOfPlace<std::uint16_t, std::uint8_t>(
          "fvs_ImageLocalSumChar2Uint16",
          [](auto *out, auto *in) { return fvs_ImageLocalSumChar2Uint16(out, in, kHeight, kWidth, 5, 3); }, false),
      SUM(fvs_ImageLocalSumUint162Uint16, std::uint16_t, std::uint16_t),
      SUM(fvs_ImageLocalSumInt2Int, std::int32_t, std::int32_t),
      SUM(fvs_ImageLocalSumFloat2Float, float, float),
      SUM(fvs_ImageMeanChar2Char, std::uint8_t, std::uint8_t),
      SUM(fvs_ImageMeanInt2Int, std::int32_t, std::int32_t),
      inPlace<std::uint8_t>(
          "BDilate", [](auto *mask) { return BDilate(mask, kHeight, kWidth); }, 1),
      inPlace<std::uint8_t>(
          "BErode", [](auto *mask) { return BErode(mask, kHeight, kWidth); }, 1),
      MASK(BWDilateFast, std::uint8_t),
      MASK(BWErodeFast, std::uint8_t),
      MASK(BWDilateFastUint16, std::uint16_t),
      MASK(BWErodeFastUint16, std::uint16_t),
      MASK(MY_BWDilateFastUint16, std::uint8_t),
      MASK(MY_BWErodeFastUint16, std::uint8_t),
      {"RegionGrow", 1, growsAll},
      {"zooInitList", 1, stack},
      {"RemoveSmallArea", 1, removesAreas},
      outOfPlace<std::uint8_t, std::uint8_t>("MeanSmooth",
                                             [](auto *out, auto *in) { return MeanSmooth(in, out, kHeight, kWidth); }),
      inPlace<std::uint8_t>(
          "FpThresholdingGradsImage", [](auto *p) { return FpThresholdingGradsImage(p, kHeight, kWidth); }, 255),
      inPlace<std::uint8_t>(
          "FpThresholdingGradsImageEx", [](auto *p) { return FpThresholdingGradsImageEx(p, kHeight, kWidth); }, 255),
      {"FingerprintGetDirectionFloat", 5, directions},
      {"FingerprintOrientGrad", 2, changeField},
      {"FpGetFrequency", 1, period},
      {"FpGetImg4DirectionGrads", 1, oneGradient},
      {"FpGetImg4DirectionGradsEx", 1, fourGradients},
      {"ImageBlkQuality", 1, blockQuality},
  });
}

// What the token itself allocates does not fail: the k-th allocation is always one of the library's.
TEST(ExhaustedMemory, TokenCommands) {
  const SimulatorPersonalisation personalisation{10, 0, 0, nullptr};
  const SCardConnection connection{3, {}, simulatorOpenInMemory(&personalisation), 1};
  ASSERT_NE(connection.hDevice, 0U);
  ASSERT_EQ(simulatorPlaceFinger(connection.hDevice, "finger", 6), 0);
  ASSERT_EQ(KelmTrovaCaptureImage(&connection), 0U);
  ASSERT_EQ(KelmTrovaFeatureExtract(&connection, 1), 0U);
  const TemplateIndexEntry record{0, 5, 0, {'l'}};
  std::uint8_t index[200];
  const struct {
    const char *name;
    std::function<std::uint64_t()> call;
    std::vector<std::uint64_t> results;  // when the first, second, ... allocation fails; then 0
  } jobs[] = {
      {"index", [&] { return KelmTrovaReadIndexFile(&connection, index); }, {0x80009902}},
      {"enrollment",
       [&] { return KelmTrovaFeatureEnroll(&connection, 3, &record); },
       {0x8000B003, 0x80009902, 0x80006A0F}},
      {"deletion", [&] { return KelmTrovaDeleteFingerPrint(&connection, 3); }, {0x8000B003, 0x80009902}},
      {"read", [&] { return std::uint64_t{SCardReadBin(&connection, 0x0520, 0, index, 20) == 0}; }, {1}},
  };
  for (const auto &job : jobs) {
    for (std::size_t failing = 1; failing <= job.results.size() + 1; ++failing) {
      std::fill(std::begin(index), std::end(index), std::uint8_t{0xEE});
      std::uint64_t result = 0;
      std::int64_t outstanding = 0;
      {
        const AllocationWatch watch(failing);
        result = job.call();
        outstanding = watch.outstanding();
      }
      const bool failed = failing <= job.results.size();
      EXPECT_EQ(result, failed ? job.results[failing - 1] : 0) << job.name << ", allocation " << failing;
      EXPECT_EQ(outstanding, 0) << job.name << ", allocation " << failing;
      EXPECT_TRUE(!failed || std::count(std::begin(index), std::end(index), 0xEE) == 200) << "the buffer is left alone";
    }
  }
  simulatorClose(connection.hDevice);
}

}  // namespace
