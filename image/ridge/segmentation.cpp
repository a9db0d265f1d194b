// SPDX-License-Identifier: Apache-2.0
// Foreground segmentation: a global threshold on a picture of gradient strengths.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/buffers/histogram.h"
#include "image/ridge/histogram_shape.h"
#include "image/support/arguments.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr int kRefused = 255;

KELM_INLINE void binariseBytesBody(std::uint8_t *image, std::size_t pixels, std::uint8_t threshold) {
  for (std::size_t i = 0; i < pixels; ++i) {
    image[i] = image[i] > threshold ? 255 : 0;
  }
}
constexpr auto binariseBytes = kernel<binariseBytesBody>;

void binarise(std::uint8_t *image, std::size_t pixels, int threshold) {
  if (threshold < 0) {
    std::memset(image, 255, pixels);
  } else {
    binariseBytes(image, pixels, static_cast<std::uint8_t>(std::min(threshold, 255)));
  }
}

int thresholding(std::uint8_t *image, std::int16_t height, std::int16_t width, int (*choose)(std::uint32_t *counters)) {
  if (!isImage(image, height, width)) {
    return kRefused;
  }
  const std::size_t pixels = sampleCount(height, width);
  const Buffer<Histogram> histogram = newHistogram(image, pixels);
  if (!histogram) {
    return kRefused;
  }
  const int threshold = choose(histogram[0].counter);
  binarise(image, pixels, threshold);
  return threshold;
}

}  // namespace
}  // namespace kelm::image

std::uint8_t needRefineSegment = 0;

int32_t FpThresholdingGradsImage(uint8_t *image, int16_t height, int16_t width) {
  return kelm::image::thresholding(image, height, width, kelm::image::silhouetteThreshold);
}

int32_t FpThresholdingGradsImageEx(uint8_t *image, int16_t height, int16_t width) {
  return static_cast<std::uint8_t>(kelm::image::thresholding(image, height, width, kelm::image::modeThreshold));
}
