// SPDX-License-Identifier: Apache-2.0
// Foreground segmentation: a global threshold on a picture of gradient strengths, and the raggedness of a mask.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/buffers/histogram.h"
#include "image/ridge/histogram_shape.h"
#include "image/support/dispatch.h"
#include "image/support/memory.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr int kRefused = 255;

KELM_INLINE void binariseBytesBody(std::uint8_t *image, std::size_t pixels, std::uint8_t threshold) {
  for (std::size_t i = 0; i < pixels; ++i) {
    image[i] = image[i] > threshold ? 255 : 0;
  }
}
KELM_KERNEL(void, binariseBytes, (std::uint8_t * image, std::size_t pixels, std::uint8_t threshold),
            (image, pixels, threshold), binariseBytesBody)

void binarise(std::uint8_t *image, std::size_t pixels, int threshold) {
  if (threshold < 0) {
    std::memset(image, 255, pixels);
  } else {
    binariseBytes(image, pixels, static_cast<std::uint8_t>(std::min(threshold, 255)));
  }
}

std::size_t pixelCount(std::int16_t height, std::int16_t width) {
  return height < 1 || width < 1 ? 0 : static_cast<std::size_t>(height) * static_cast<std::size_t>(width);
}

int thresholding(std::uint8_t *image, std::int16_t height, std::int16_t width, int (*choose)(std::uint32_t *counters)) {
  const std::size_t pixels = pixelCount(height, width);
  if (image == nullptr || pixels == 0) {
    return kRefused;
  }
  const Block<Histogram> histogram = newHistogram(image, pixels);
  if (!histogram) {
    return kRefused;
  }
  const int threshold = choose(histogram[0].counter);
  binarise(image, pixels, threshold);
  return threshold;
}

// Counting in byte lanes, which hold up to 255 steps before they must be emptied.
constexpr std::size_t kLanes = 64;
constexpr std::size_t kMaxSteps = 255;
typedef std::uint8_t Lanes __attribute__((vector_size(kLanes)));
typedef std::int8_t LaneMask __attribute__((vector_size(kLanes)));  // -1 where true

struct LaneCounts {
  Lanes area;
  Lanes inner;
};

struct AreaCounts {
  std::uint32_t area;
  std::uint32_t inner;
};

KELM_INLINE void load(Lanes *lanes, const std::uint8_t *p) { std::memcpy(lanes, p, sizeof *lanes); }

// Counts those of the 64 pixels at `p` that `counted` lets through.
KELM_INLINE void countLanes(LaneCounts *counts, const std::uint8_t *p, std::size_t width, std::uint8_t value,
                            const LaneMask *counted) {
  Lanes centre;
  Lanes above;
  Lanes left;
  Lanes right;
  Lanes below;
  load(&centre, p);
  load(&above, p - width);
  load(&left, p - 1);
  load(&right, p + 1);
  load(&below, p + width);
  const LaneMask area = (centre == value) & *counted;
  const LaneMask inner = ((above & left & right & below) != 0) & area;
  counts->area -= reinterpret_cast<const Lanes &>(area);
  counts->inner -= reinterpret_cast<const Lanes &>(inner);
}

// `n` pixels from `p` on, at least 64 and at most 254 x 64; the last step overlaps the one before.
KELM_INLINE AreaCounts countRunBody(const std::uint8_t *p, std::size_t n, std::size_t width, std::uint8_t value) {
  LaneCounts counts;
  std::memset(&counts, 0, sizeof counts);
  LaneMask counted;
  std::memset(&counted, -1, sizeof counted);
  std::size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    countLanes(&counts, p + i, width, value, &counted);
  }
  if (i < n) {
    std::memset(&counted, 0, i - (n - kLanes));
    countLanes(&counts, p + n - kLanes, width, value, &counted);
  }
  std::uint8_t area[kLanes];
  std::uint8_t inner[kLanes];
  std::memcpy(area, &counts.area, sizeof area);
  std::memcpy(inner, &counts.inner, sizeof inner);
  AreaCounts sum = {0, 0};
  for (std::size_t l = 0; l < kLanes; ++l) {
    sum.area += area[l];
    sum.inner += inner[l];
  }
  return sum;
}
KELM_KERNEL(AreaCounts, countRun, (const std::uint8_t *p, std::size_t n, std::size_t width, std::uint8_t value),
            (p, n, width, value), countRunBody)

AreaCounts countFew(const std::uint8_t *p, std::size_t n, std::size_t width, std::uint8_t value) {
  AreaCounts sum = {0, 0};
  for (std::size_t i = 0; i < n; ++i, ++p) {
    if (*p == value) {
      ++sum.area;
      sum.inner += (*(p - width) & *(p - 1) & *(p + 1) & *(p + width)) != 0 ? 1 : 0;
    }
  }
  return sum;
}

AreaCounts countAreas(const std::uint8_t *mask, std::size_t height, std::size_t width, std::uint8_t value) {
  AreaCounts sum = {0, 0};
  for (std::size_t y = 1; y + 1 < height; ++y) {
    for (std::size_t x = 1; x + 1 < width;) {
      const std::size_t n = std::min(width - 1 - x, (kMaxSteps - 1) * kLanes);
      const std::uint8_t *p = mask + y * width + x;
      const AreaCounts run = n < kLanes ? countFew(p, n, width, value) : countRun(p, n, width, value);
      sum.area += run.area;
      sum.inner += run.inner;
      x += n;
    }
  }
  return sum;
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

float Complexity(const uint8_t *mask, int16_t height, int16_t width, uint8_t value) {
  using namespace kelm::image;
  if (mask == nullptr) {
    return -1.0F;
  }
  const bool empty = pixelCount(height, width) == 0;
  const AreaCounts counts =
      empty ? AreaCounts{0, 0}
            : countAreas(mask, static_cast<std::size_t>(height), static_cast<std::size_t>(width), value);
  const float area = static_cast<float>(counts.area);
  const float boundary = area - static_cast<float>(counts.inner);
  return boundary * boundary / area;
}
