// SPDX-License-Identifier: Apache-2.0
// Every exported function that allocates, with its first, second, third ... allocation failing until it succeeds: the
// stated result, the outputs as stated, nothing leaked, nothing written outside.
#include <sys/stat.h>

#include <algorithm>
#include <concepts>
#include <functional>
#include <string>

#include "tests/support/allocation.h"
#include "tests/support/fields.h"
#include "tests/support/simulated.h"

namespace {

using namespace kelm::test;

constexpr int kHeight = 37;
constexpr int kWidth = 53;

// A picture that makes every stage work: blobs of 0 and 255 with grey in between. The functions on wider samples take
// it for those of fewer rows.
const Bytes kGrey =
    picture(4 * kHeight, kWidth, [](int x, int y) { return (x / 5 + y / 4) % 3 == 0 ? 255 : (x * 7 + y * 3) % 251; });
const Guarded<std::uint8_t> kIn(kGrey);
const Guarded<std::uint8_t> kOut(kGrey);

struct Case {
  const char *name;
  int allocations;             // how many it makes at the least
  std::function<bool()> call;  // whether it answered what is stated for exhausted memory
  bool untouched = true;       // then kIn and kOut are as before
};

bool refused(std::integral auto result) {
  EXPECT_TRUE(result == 0 || result == 1) << result;
  return result != 0;
}

bool refused(void *block) {
  std::free(block);
  return block == nullptr;
}

bool sums(auto function) {
  return refused(
      call(function, static_cast<void *>(kOut.data()), static_cast<void *>(kIn.data()), kHeight, kWidth, 5, 3));
}

bool inPlace(auto function, auto... sizes) {
  return refused(call(function, static_cast<void *>(kIn.data()), kHeight, kWidth, sizes...));
}

// Any threshold but the one that says that there is none.
bool threshold(auto function) { return function(kIn.data(), kHeight, kWidth) == 255; }

// Always 0: that nothing was done shows in the picture alone.
bool normalize() {
  EXPECT_EQ(call(ImageNormalize, kIn.data(), kHeight, kWidth, 99, 400), 0);
  return std::equal(kGrey.begin(), kGrey.end(), kIn.begin());
}

bool grow() {
  std::uint32_t area = 1;
  std::int16_t box[4];
  RegionGrow(kIn.data(), kHeight, kWidth, 0, 0, &area, &box[0], &box[1], &box[2], &box[3], 255, 7, 1);
  return area == 0;
}

bool period() {
  std::int16_t samples[4] = {0, 10, 20, -30};
  const FingerprintBlockField field{8, 2, 2, samples};
  std::uint8_t *map = nullptr;
  const bool failed = refused(FpGetFrequency(kIn.data(), kHeight, kWidth, &field, &map));
  const Owned<std::uint8_t> owner(map);
  EXPECT_TRUE(!failed || map == nullptr || std::count(map, map + (kHeight / 4) * (kWidth / 4), 255) == 9 * 13);
  return failed;
}

bool oneGradient() {
  std::uint16_t sample = 0;
  std::uint16_t *map = &sample;
  const bool failed = refused(FpGetImg4DirectionGrads(kIn.data(), kHeight, kWidth, &map, 1, 4));
  EXPECT_EQ(refused(map), failed);
  return failed;
}

bool fourGradients() {
  std::uint16_t **maps = FpGetImg4DirectionGradsEx(kIn.data(), kHeight, kWidth, 4);
  for (int d = 0; maps != nullptr && d < 4; ++d) {
    std::free(maps[d]);
  }
  return refused(maps);
}

bool blockQuality() {
  BlockQualityMap map{};
  const bool failed = refused(ImageBlkQuality(&map, kIn.data(), kHeight, kWidth, 0));
  const Owned<std::uint8_t> owner(map.grades);
  const int blocks = map.grades == nullptr ? 0 : map.rows * map.cols;
  EXPECT_EQ(std::count(map.grades, map.grades + blocks, 0) == blocks, failed);
  return failed;
}

bool rotations() {
  AxisPoint **tables = AxisTransform(6, 5, 5);
  AxisDestroy(tables, 6);
  return tables == nullptr;
}

bool stack() {
  ZooList list{};
  zooInitList(&list, 4);
  const int pushed = zooPush(&list, 1);
  EXPECT_EQ(list.capacity, 4 * pushed);
  zooClearup(&list);
  return pushed == 0;
}

// The sizes of the fine fields are written first, and the data of the field of changes is let go.
bool directions() {
  DirectionFields fields;
  std::int16_t mark = 0;
  fields.direction8.data = fields.orientGrad.data = fields.direction16.data = &mark;
  const bool failed = refused(fields.compute(kIn.data(), {32, 48, 64, 96, 9}));
  EXPECT_EQ(fields.direction8.rows * 100 + fields.orientGrad.cols, 812);
  if (failed) {
    EXPECT_TRUE(fields.direction8.data == &mark && !fields.orientGrad.data && fields.direction16.data == &mark);
    fields.direction8.data = fields.direction16.data = nullptr;
  }
  return failed;
}

const Case kCases[] = {
    {"ImageEnlarge", 1, [] { return refused(call(ImageEnlarge, kIn.data(), 37, 53, 74, 106)); }},
    {"ImageReduce", 1, [] { return refused(call(ImageReduce, kIn.data(), 37, 53, 18, 26)); }},
    {"HistogramCreate", 1, [] { return refused(HistogramCreate()); }},
    {"HistogramCompute", 1, [] { return refused(HistogramCompute(kIn.data(), kHeight, kWidth)); }},
    {"ImageNormalize", 1, normalize},
    {"AxisTransform", 8, rotations},
    {"fvs_ImageLocalSumChar2Char", 1, [] { return sums(fvs_ImageLocalSumChar2Char); }},
    {"fvs_ImageLocalSumChar2Uint16", 1, [] { return sums(fvs_ImageLocalSumChar2Uint16); }, false},
    {"fvs_ImageLocalSumUint162Uint16", 1, [] { return sums(fvs_ImageLocalSumUint162Uint16); }},
    {"fvs_ImageLocalSumInt2Int", 1, [] { return sums(fvs_ImageLocalSumInt2Int); }},
    {"fvs_ImageLocalSumFloat2Float", 1, [] { return sums(fvs_ImageLocalSumFloat2Float); }},
    {"fvs_ImageMeanChar2Char", 1, [] { return sums(fvs_ImageMeanChar2Char); }},
    {"fvs_ImageMeanInt2Int", 1, [] { return sums(fvs_ImageMeanInt2Int); }},
    {"BDilate", 1, [] { return inPlace(BDilate); }},
    {"BErode", 1, [] { return inPlace(BErode); }},
    {"BWDilateFast", 1, [] { return inPlace(BWDilateFast, 3, 3); }},
    {"BWErodeFast", 1, [] { return inPlace(BWErodeFast, 3, 3); }},
    {"BWDilateFastUint16", 1, [] { return inPlace(BWDilateFastUint16, 3, 3); }},
    {"BWErodeFastUint16", 1, [] { return inPlace(BWErodeFastUint16, 3, 3); }},
    {"MY_BWDilateFastUint16", 1, [] { return inPlace(MY_BWDilateFastUint16, 3, 3); }},
    {"MY_BWErodeFastUint16", 1, [] { return inPlace(MY_BWErodeFastUint16, 3, 3); }},
    {"RegionGrow", 1, grow},
    {"zooInitList", 1, stack},
    {"RemoveSmallArea", 1, [] { return inPlace(RemoveSmallArea, 255, 9, 25); }},
    {"MeanSmooth", 1, [] { return refused(MeanSmooth(kIn.data(), kOut.data(), kHeight, kWidth)); }},
    {"FpThresholdingGradsImage", 1, [] { return threshold(FpThresholdingGradsImage); }},
    {"FpThresholdingGradsImageEx", 1, [] { return threshold(FpThresholdingGradsImageEx); }},
    {"FingerprintGetDirectionFloat", 5, directions},
    {"FpGetFrequency", 1, period},
    {"FpGetImg4DirectionGrads", 1, oneGradient},
    {"FpGetImg4DirectionGradsEx", 1, fourGradients},
    {"ImageBlkQuality", 1, blockQuality},
};

TEST(ExhaustedMemory, Toolkit) {
  for (const Case &job : kCases) {
    job.call();  // whatever a call keeps for good is taken here
    bool failed = true;
    for (std::uint64_t failing = 1; failed; ++failing) {
      SCOPED_TRACE(testing::Message() << job.name << ", allocation " << failing);
      std::copy(kGrey.begin(), kGrey.end(), kIn.begin());
      std::copy(kGrey.begin(), kGrey.end(), kOut.begin());
      bool answered = false;
      std::int64_t outstanding = 0;
      {
        const AllocationWatch watch(failing);
        answered = job.call();
        outstanding = watch.outstanding();
        failed = watch.failed();
      }
      ASSERT_LT(failing, 100U);
      EXPECT_TRUE(failed || failing > static_cast<std::uint64_t>(job.allocations));
      EXPECT_EQ(answered, failed);
      EXPECT_EQ(outstanding, 0) << "leaked";
      EXPECT_TRUE(!failed || !job.untouched || (same(kIn.data(), kGrey) && same(kOut.data(), kGrey)));
    }
  }
}

// Whole also where only the stream did without its buffer.
TEST(ExhaustedMemory, ThePictureOfTheBarsIsWholeOrNotThere) {
  const std::string path = testing::TempDir() + "bars-" + std::to_string(getpid()) + ".raw";
  const std::uint32_t counters[3] = {1, 2, 3};
  bool failed = true;
  for (std::uint64_t failing = 1; failed; ++failing) {
    {
      const AllocationWatch watch(failing);
      EXPECT_EQ(HistogramPrint(counters, 3, path.c_str()), 0);
      failed = watch.failed();
      EXPECT_EQ(watch.outstanding(), 0);
    }
    struct stat file = {};
    EXPECT_TRUE(stat(path.c_str(), &file) == 0 ? file.st_size == 3 * 256 : failed) << failing;
    unlink(path.c_str());
  }
}

// What the token itself allocates does not fail: the k-th allocation is always one of the library's.
TEST(ExhaustedMemory, TokenCommands) {
  const SimulatedToken token({10, 0, 0, nullptr});
  const SCardConnection &connection = token.connection;
  token.present("finger");
  const TemplateIndexEntry record{};
  std::uint8_t index[200];
  const struct {
    const char *name;
    std::function<std::uint64_t()> call;
    std::vector<std::uint64_t> results;  // when the first, second, ... allocation fails; then 0
  } jobs[] = {
      {"index", [&] { return KelmTrovaReadIndexFile(&connection, index); }, {0x80009902}},
      {"enrollment", [&] { return token.enroll(3, record); }, {0x8000B003, 0x80009902, 0x80006A0F}},
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
}

}  // namespace
