// SPDX-License-Identifier: Apache-2.0
// Mean and variance of the grey levels that a histogram counts.
#include "image/buffers/histogram_statistics.h"

#include <cstdint>

#include "image/buffers/histogram.h"
#include "kelmtrova/image.h"

namespace kelm::image {

std::uint8_t roundedMean(std::uint32_t weighted, std::uint32_t count) {
  if (count == 0) {
    return 0;
  }
  const auto divisor = static_cast<std::int32_t>(count);
  const auto dividend = static_cast<std::int32_t>(weighted + static_cast<std::uint32_t>(divisor / 2));
  // 64 bits, because the smallest number divided by -1 does not fit into 32.
  return static_cast<std::uint8_t>(std::int64_t{dividend} / divisor);
}

std::uint32_t roundedVariance(std::uint32_t squares, std::uint32_t count) {
  return count == 0 ? 0 : (squares + count / 2) / count;
}

namespace {

std::uint32_t countOf(const Histogram &histogram) {
  std::uint32_t count = 0;
  for (const std::uint32_t counter : histogram.counter) {
    count += counter;
  }
  return count;
}

std::uint8_t meanOf(const Histogram &histogram) {
  std::uint32_t weighted = 0;
  for (std::uint32_t level = 0; level < kGreyLevels; ++level) {
    weighted += level * histogram.counter[level];
  }
  return roundedMean(weighted, countOf(histogram));
}

std::uint32_t varianceAbout(const Histogram &histogram, std::uint8_t mean) {
  std::uint32_t squares = 0;
  for (int level = 0; level < kGreyLevels; ++level) {
    const int deviation = level - mean;
    squares += histogram.counter[level] * static_cast<std::uint32_t>(deviation * deviation);
  }
  return roundedVariance(squares, countOf(histogram));
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

uint8_t HistogramGetMean(const Histogram *histogram) { return histogram == nullptr ? 0 : meanOf(*histogram); }

uint32_t HistogramGetVariance(const Histogram *histogram) {
  return histogram == nullptr ? 0 : varianceAbout(*histogram, meanOf(*histogram));
}

uint32_t HistogramGetVariance2(const Histogram *histogram, uint8_t mean) {
  return histogram == nullptr ? 0 : varianceAbout(*histogram, mean);
}
