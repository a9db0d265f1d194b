// SPDX-License-Identifier: Apache-2.0
#include "tests/robustness/toolkit_calls.h"

#include <algorithm>
#include <concepts>
#include <cstdlib>

#include "tests/support/fields.h"

namespace kelm::test {

namespace {

constexpr int kHeight = 37;
constexpr int kWidth = 53;

// A picture that makes every stage work: blobs of 0 and 255 with grey in between. The functions on wider samples take
// it for those of fewer rows.
const Bytes kGrey =
    picture(4 * kHeight, kWidth, [](int x, int y) { return (x / 5 + y / 4) % 3 == 0 ? 255 : (x * 7 + y * 3) % 251; });
const Guarded<std::uint8_t> kIn(kGrey);
const Guarded<std::uint8_t> kOut(kGrey);

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

// The result is always 0: only the picture shows that nothing was done.
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

bool fieldOfChanges() {
  std::int16_t samples[4] = {0, 10, 20, -30};
  const FingerprintBlockField field{8, 2, 2, samples};
  FingerprintBlockField changes = {};
  const bool failed = refused(FingerprintOrientGrad(&changes, &field));
  const Owned<std::int16_t> owner(changes.data);
  EXPECT_EQ(changes.data == nullptr, failed);
  return failed;
}

bool blockQualityOfMaps() {
  static std::uint16_t map[(kHeight / 4) * (kWidth / 4)];
  std::uint16_t *const maps[4] = {map, map, map, map};
  BlockQualityMap quality{};
  const bool failed = refused(ImageBlkQualityEx(&quality, kIn.data(), kHeight, kWidth, 0, maps));
  std::free(quality.grades);
  return failed;
}

// Functions that take no memory never say that there is none. Long lines, where their length counts.
template <auto function>
bool takesNone(auto... arguments) {
  call(function, arguments...);
  return false;
}

template <auto function, typename Sample>
bool vectorSums() {
  const auto samples = reinterpret_cast<Sample *>(kIn.data());
  return takesNone<function>(samples + 100, samples, 1, 1, 90, 9);
}

template <auto function>
bool ofHistogram(auto... arguments) {
  static Histogram histogram;
  return takesNone<function>(&histogram, arguments...);
}

template <auto transform>
bool transformed() {
  static float re[16384], im[16384];
  return takesNone<transform>(re, im, 16384);
}

bool pushAndPop() {
  ZooList list{};
  std::uint32_t entry = 0;
  zooInitList(&list, 4);
  const bool failed = zooPush(&list, 7) == 0;
  EXPECT_EQ(zooPop(&list, &entry) == 0 || entry != 7, failed);
  EXPECT_NE(zooIsListEmpty(&list), 0);
  zooClearup(&list);
  return failed;
}

// The sizes of the fine fields are written first, and the data of the field of changes is released.
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

}  // namespace

const std::vector<ToolkitCall> &toolkitCalls() {
  static const std::vector<ToolkitCall> calls{
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
      {"FingerprintOrientGrad", 1, fieldOfChanges},
      {"ImageBlkQualityEx", 1, blockQualityOfMaps},
      {"AxisDestroy", 8, rotations},
      {"zooPush", 1, pushAndPop},
      {"zooPop", 1, pushAndPop},
      {"zooIsListEmpty", 1, pushAndPop},
      {"zooClearup", 1, pushAndPop},
      {"HistogramDestroy", 1,
       [] {
         Histogram *const histogram = HistogramCreate();
         HistogramDestroy(histogram);
         return histogram == nullptr;
       }},
      {"ImageCopy", 0, [] { return takesNone<ImageCopy>(kOut.data(), kIn.data(), kHeight, kWidth); }},
      {"ImageClear", 0, [] { return takesNone<ImageClear>(kIn.data(), kHeight, kWidth); }},
      {"ImageFlood", 0, [] { return takesNone<ImageFlood>(kIn.data(), 7, kHeight, kWidth); }},
      {"HistogramGetMean", 0, [] { return ofHistogram<HistogramGetMean>(); }},
      {"HistogramGetVariance", 0, [] { return ofHistogram<HistogramGetVariance>(); }},
      {"HistogramGetVariance2", 0, [] { return ofHistogram<HistogramGetVariance2>(3); }},
      {"HistogramSmooth", 0, [] { return ofHistogram<HistogramSmooth>(); }},
      {"HistogramSmooth128", 0,
       [] { return takesNone<HistogramSmooth128>(reinterpret_cast<std::uint32_t *>(kIn.data())); }},
      {"FFT", 0, transformed<FFT>},
      {"IFFT", 0, transformed<IFFT>},
      {"fvs_VectorLocalSumChar2Char", 0, vectorSums<fvs_VectorLocalSumChar2Char, std::uint8_t>},
      {"fvs_VectorLocalSumChar2Uint16", 0,
       [] {
         return takesNone<fvs_VectorLocalSumChar2Uint16>(reinterpret_cast<std::uint16_t *>(kOut.data()), kIn.data(), 1,
                                                         1, 90, 9);
       }},
      {"fvs_VectorLocalSumUint162Uint16", 0, vectorSums<fvs_VectorLocalSumUint162Uint16, std::uint16_t>},
      {"fvs_VectorLocalSumInt2Int", 0, vectorSums<fvs_VectorLocalSumInt2Int, std::int32_t>},
      {"fvs_VectorLocalSumFloat2Float", 0, vectorSums<fvs_VectorLocalSumFloat2Float, float>},
      {"RemoveStripe", 0,
       [] {
         RemoveStripe(kIn.data(), 78, 100, 255, 0, 255, 0);
         return takesNone<RemoveStripe>(kIn.data(), 78, 100, 255, 0, 255, 1);
       }},
      {"Complexity", 0, [] { return takesNone<Complexity>(kIn.data(), kHeight, kWidth, 255); }},
      {"AngleDiffAbs", 0, [] { return takesNone<AngleDiffAbs>(80, -80); }},
      {"Project", 0,
       [] { return takesNone<Project>(reinterpret_cast<std::int32_t *>(kOut.data()), kIn.data(), 7, 1000, 1); }},
      {"NotContinue", 0, [] { return takesNone<NotContinue>(kIn.data(), 16, 490, 99); }},
  };
  return calls;
}

void restorePictures() {
  std::copy(kGrey.begin(), kGrey.end(), kIn.begin());
  std::copy(kGrey.begin(), kGrey.end(), kOut.begin());
}

bool picturesUntouched() { return same(kIn.data(), kGrey) && same(kOut.data(), kGrey); }

}  // namespace kelm::test
