// SPDX-License-Identifier: Apache-2.0
// Image functions with any dimensions, windows, steps and contents, in buffers of exactly the size they are said to
// have.
#include <array>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "fuzz/input.h"
#include "kelmtrova/image.h"

namespace {

using kelm::fuzz::Input;

struct Size {
  std::int16_t height, width;

  std::uint16_t rows() const { return static_cast<std::uint16_t>(height); }
  std::uint16_t columns() const { return static_cast<std::uint16_t>(width); }
  std::size_t pixels() const {
    return height > 0 && width > 0 ? static_cast<std::size_t>(height) * static_cast<std::size_t>(width) : 0;
  }
};

// Mostly small pictures; one dimension may be extreme, and either may be 0 or negative.
Size takeSize(Input &input) {
  const std::uint8_t kind = input.byte();
  Size size{input.byte(), input.byte()};
  if ((kind & 0x10) != 0) {
    size.height = input.take<std::int16_t>();
  } else if ((kind & 0x20) != 0) {
    size.width = input.take<std::int16_t>();
  }
  while (size.pixels() > 1U << 13) {
    (size.height > size.width ? size.width : size.height) /= 2;
  }
  return size;
}

std::vector<std::uint8_t> takePicture(Input &input, const Size &size) {
  return input.samples<std::uint8_t>(size.pixels());
}

template <auto function>
void inPlace(Input &input) {  // picture, height, width
  const Size size = takeSize(input);
  auto picture = takePicture(input, size);
  function(picture.data(), size.height, size.width);
}

template <auto function, typename Sample>
void windowed(Input &input) {  // mask, height, width, two window sizes
  const Size size = takeSize(input);
  const std::uint8_t sizeX = input.byte();
  const std::uint8_t sizeY = input.byte();
  auto mask = input.samples<Sample>(size.pixels());
  function(mask.data(), size.height, size.width, sizeX, sizeY);
}

template <auto function, typename Out, typename In>
void boxFilter(Input &input) {
  const Size size = takeSize(input);
  const std::uint8_t sizeX = input.byte();
  const std::uint8_t sizeY = input.byte();
  auto in = input.samples<In>(size.pixels());
  if constexpr (std::is_same_v<In, Out>) {
    if (sizeX % 2 == 0) {
      function(in.data(), in.data(), size.height, size.width, sizeX, sizeY);
      return;
    }
  }
  std::vector<Out> out(size.pixels());
  function(out.data(), in.data(), size.height, size.width, sizeX, sizeY);
}

template <auto function, typename Out, typename In>
void vectorSum(Input &input) {
  const auto n = static_cast<std::int16_t>(input.take<std::int16_t>() % 512);
  const auto outStride = static_cast<std::int16_t>(input.byte() % 5);
  const auto inStride = static_cast<std::int16_t>(input.byte() % 5);
  const std::uint8_t window = input.byte();
  const auto span = [n](std::int16_t stride) { return n > 0 ? static_cast<std::size_t>((n - 1) * stride + 1) : 0; };
  const auto in = input.samples<In>(span(inStride));
  std::vector<Out> out(span(outStride));
  function(out.data(), in.data(), outStride, inStride, n, window);
}

void buffers(Input &input) {
  const Size size = takeSize(input);
  if (size.height < 0 || size.width < 0) {
    return;
  }
  auto picture = takePicture(input, size);
  auto copy = picture;
  ImageCopy(copy.data(), picture.data(), size.rows(), size.columns());
  ImageNormalize(copy.data(), size.rows(), size.columns(), input.byte(), input.take<std::uint32_t>());
  std::free(ImageEnlarge(picture.data(), size.rows(), size.columns(), static_cast<std::uint16_t>(2 * size.height),
                         static_cast<std::uint16_t>(2 * size.width)));
  std::free(ImageReduce(picture.data(), size.rows(), size.columns(), static_cast<std::uint16_t>(size.height / 2),
                        static_cast<std::uint16_t>(size.width / 2)));
  Histogram *histogram = HistogramCompute(picture.data(), size.rows(), size.columns());
  HistogramGetVariance2(histogram, input.byte());
  HistogramGetVariance(histogram);
  HistogramDestroy(histogram);
  ImageFlood(picture.data(), input.byte(), size.rows(), size.columns());
  ImageClear(picture.data(), size.rows(), size.columns());
}

void histograms(Input &input) {
  const auto histogram = std::make_unique<Histogram>(input.take<Histogram>());
  HistogramGetVariance2(histogram.get(), HistogramGetMean(histogram.get()));
  HistogramSmooth(histogram.get());
  auto counters = input.samples<std::uint32_t>(128);
  HistogramSmooth128(counters.data());
}

void drawn(Input &input) {
  const auto n = static_cast<std::int16_t>(input.take<std::int16_t>() % 300);
  const auto counters = input.samples<std::uint32_t>(static_cast<std::size_t>(std::max<int>(n, 0)));
  HistogramPrint(counters.data(), n, "/dev/null");
}

// A stack whose count the caller may have spoilt.
void stack(Input &input) {
  ZooList list{};
  zooInitList(&list, input.take<std::int16_t>());
  while (!input.empty()) {
    const std::uint8_t what = input.byte();
    std::uint32_t entry = input.take<std::uint32_t>();
    if (what % 4 == 0) {
      list.count = static_cast<std::int32_t>(entry);
    } else if (what % 4 == 1) {
      zooPop(&list, &entry);
    } else {
      zooPush(&list, entry);
    }
    zooIsListEmpty(&list);
  }
  zooClearup(&list);
}

void fourier(Input &input) {
  const auto n = static_cast<std::uint16_t>(input.byte() % 2 == 0 ? 1 << (input.byte() % 15) : input.byte());
  auto re = input.samples<float>(n);
  auto im = input.samples<float>(n);
  FFT(re.data(), im.data(), n);
  IFFT(re.data(), im.data(), n);
}

void axis(Input &input) {
  const std::uint8_t n = input.byte() % 32;
  const std::uint8_t width = input.byte();
  AxisDestroy(AxisTransform(n, width, input.byte()), n);
}

void grow(Input &input) {
  const Size size = takeSize(input);
  const auto row = static_cast<std::int16_t>(input.byte());
  const auto column = static_cast<std::int16_t>(input.byte());
  const std::uint8_t seed = input.byte();
  const std::uint8_t label = input.byte();
  const std::uint8_t tolerance = input.byte();
  auto picture = takePicture(input, size);
  std::uint32_t area = 0;
  std::int16_t box[4];
  RegionGrow(picture.data(), size.height, size.width, row, column, &area, &box[0], &box[1], &box[2], &box[3], seed,
             label, tolerance);
}

void removeSmall(Input &input) {
  const Size size = takeSize(input);
  const std::uint8_t value = input.byte();
  const std::uint8_t replacement = input.byte();
  const auto largest = input.take<std::int16_t>();
  auto picture = takePicture(input, size);
  RemoveSmallArea(picture.data(), size.height, size.width, value, replacement, largest);
}

void smooth(Input &input) {
  const Size size = takeSize(input);
  const auto picture = takePicture(input, size);
  std::vector<std::uint8_t> out(picture.size());
  MeanSmooth(picture.data(), out.data(), size.height, size.width);
  Complexity(picture.data(), size.height, size.width, 255);
}

void stripes(Input &input) {
  const Size size = takeSize(input);
  const auto arguments = input.take<std::array<std::uint8_t, 4>>();
  auto picture = takePicture(input, size);
  RemoveStripe(picture.data(), size.height, size.width, arguments[0], arguments[1], arguments[2], arguments[3] % 3);
}

void orientation(Input &input) {
  const Size size = takeSize(input);
  const bool odd = input.byte() % 8 == 0;
  const auto fullHeight = odd ? input.take<std::uint16_t>() : static_cast<std::uint16_t>(2 * size.height);
  const auto fullWidth = odd ? input.take<std::uint16_t>() : static_cast<std::uint16_t>(2 * size.width);
  const std::uint8_t window = input.byte();
  if (size.height < 0 || size.width < 0) {
    return;
  }
  const auto picture = takePicture(input, size);
  std::int32_t *products = nullptr;
  std::int32_t *differences = nullptr;
  FingerprintBlockField fine{};
  FingerprintBlockField change{};
  FingerprintBlockField coarse{};
  FingerprintGetDirectionFloat(picture.data(), size.rows(), size.columns(), fullHeight, fullWidth, window, 0, &products,
                               &differences, &fine, &change, &coarse);
  std::free(products);
  std::free(differences);
  std::free(fine.data);
  std::free(change.data);
  std::free(coarse.data);
}

void frequency(Input &input) {
  const Size size = takeSize(input);
  FingerprintBlockField field{8, input.byte(), input.byte(), nullptr};
  auto directions = input.samples<std::int16_t>(static_cast<std::size_t>(field.rows) * field.cols);
  field.data = directions.data();
  FingerprintBlockField change{};
  FingerprintOrientGrad(&change, &field);
  std::free(change.data);
  const auto angle = input.take<std::int32_t>();
  AngleDiffAbs(angle, input.take<std::int32_t>());
  const auto picture = takePicture(input, size);
  std::uint8_t *map = nullptr;
  FpGetFrequency(picture.data(), size.height, size.width, &field, &map);
  std::free(map);
}

void quality(Input &input) {
  const Size size = takeSize(input);
  const std::uint8_t step = input.byte() % 20;
  const std::uint8_t direction = input.byte() % 5;
  const auto picture = takePicture(input, size);
  std::uint16_t *one = nullptr;
  FpGetImg4DirectionGrads(picture.data(), size.height, size.width, &one, direction, step);
  std::free(one);
  std::uint16_t **all = FpGetImg4DirectionGradsEx(picture.data(), size.height, size.width, step);
  BlockQualityMap map{};
  if (all != nullptr && step == 4) {
    ImageBlkQualityEx(&map, picture.data(), size.height, size.width, 0, all);
    std::free(map.grades);
    map.grades = nullptr;
  }
  for (int d = 0; all != nullptr && d < 4; ++d) {
    std::free(all[d]);
  }
  std::free(all);
  ImageBlkQuality(&map, picture.data(), size.height, size.width, 0);
  std::free(map.grades);
}

void continuity(Input &input) {
  const Size size = takeSize(input);
  const auto level = input.take<std::int32_t>();
  const auto picture = takePicture(input, size);
  NotContinue(picture.data(), size.height, size.width, level);
  std::vector<std::int32_t> sums(static_cast<std::size_t>(std::max<int>({size.height, size.width, 0})));
  const std::uint32_t mode = input.byte() % 2;
  Project(sums.data(), picture.data(), size.height, size.width, mode);
}

constexpr void (*kJobs[])(Input &) = {
    inPlace<BDilate>,
    inPlace<BErode>,
    inPlace<FpThresholdingGradsImage>,
    inPlace<FpThresholdingGradsImageEx>,
    windowed<BWDilateFast, std::uint8_t>,
    windowed<BWErodeFast, std::uint8_t>,
    windowed<MY_BWDilateFastUint16, std::uint8_t>,
    windowed<MY_BWErodeFastUint16, std::uint8_t>,
    windowed<BWDilateFastUint16, std::uint16_t>,
    windowed<BWErodeFastUint16, std::uint16_t>,
    boxFilter<fvs_ImageLocalSumChar2Char, std::uint8_t, std::uint8_t>,
    boxFilter<fvs_ImageLocalSumChar2Uint16, std::uint16_t, std::uint8_t>,
    boxFilter<fvs_ImageLocalSumUint162Uint16, std::uint16_t, std::uint16_t>,
    boxFilter<fvs_ImageLocalSumInt2Int, std::int32_t, std::int32_t>,
    boxFilter<fvs_ImageLocalSumFloat2Float, float, float>,
    boxFilter<fvs_ImageMeanChar2Char, std::uint8_t, std::uint8_t>,
    boxFilter<fvs_ImageMeanInt2Int, std::int32_t, std::int32_t>,
    vectorSum<fvs_VectorLocalSumChar2Char, std::uint8_t, std::uint8_t>,
    vectorSum<fvs_VectorLocalSumChar2Uint16, std::uint16_t, std::uint8_t>,
    vectorSum<fvs_VectorLocalSumUint162Uint16, std::uint16_t, std::uint16_t>,
    vectorSum<fvs_VectorLocalSumInt2Int, std::int32_t, std::int32_t>,
    vectorSum<fvs_VectorLocalSumFloat2Float, float, float>,
    buffers,
    histograms,
    fourier,
    axis,
    grow,
    removeSmall,
    smooth,
    stripes,
    orientation,
    frequency,
    quality,
    continuity,
    drawn,
    stack,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  Input input(data, size);
  kJobs[input.byte() % std::size(kJobs)](input);
  return 0;
}
