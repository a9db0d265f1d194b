// SPDX-License-Identifier: Apache-2.0
// The raggedness of a mask.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/support/arguments.h"
#include "image/support/kernel.h"
#include "image/support/lanes.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

// Pixels are counted in byte lanes, which hold up to 255 steps before they must be emptied.
constexpr std::size_t kLanes = 64;
constexpr std::size_t kMaxSteps = 255;

struct LaneCounts {
  std::uint8_t area[kLanes];
  std::uint8_t inner[kLanes];
};

struct AreaCounts {
  std::uint32_t area;
  std::uint32_t inner;
};

// Counts those of the 64 pixels at `p` whose lane of `counted` is 1.
KELM_INLINE void countLanes(LaneCounts &counts, const std::uint8_t *p, std::size_t width, std::uint8_t value,
                            const std::uint8_t (&counted)[kLanes]) {
  const std::uint8_t *const above = p - width;
  const std::uint8_t *const below = p + width;
  for (std::size_t l = 0; l < kLanes; ++l) {
    const auto around = static_cast<std::uint8_t>(above[l] & *(p + l - 1) & p[l + 1] & below[l]);
    const auto area = static_cast<std::uint8_t>(mask(p[l] == value) & counted[l]);
    counts.area[l] = static_cast<std::uint8_t>(counts.area[l] + area);
    counts.inner[l] = static_cast<std::uint8_t>(counts.inner[l] + (mask(around != 0) & area));
  }
}

// `n` pixels from `p` on, at least 64 and at most 254 x 64; the last step overlaps the one before.
KELM_INLINE AreaCounts countRunBody(const std::uint8_t *p, std::size_t n, std::size_t width, std::uint8_t value) {
  LaneCounts counts = {};
  std::uint8_t counted[kLanes];
  std::memset(counted, 1, sizeof counted);
  std::size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    countLanes(counts, p + i, width, value, counted);
  }
  if (i < n) {
    std::memset(counted, 0, i - (n - kLanes));
    countLanes(counts, p + n - kLanes, width, value, counted);
  }
  AreaCounts sum = {0, 0};
  for (std::size_t l = 0; l < kLanes; ++l) {
    sum.area += counts.area[l];
    sum.inner += counts.inner[l];
  }
  return sum;
}
constexpr auto countRun = kernel<countRunBody>;

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

float Complexity(const uint8_t *mask, int16_t height, int16_t width, uint8_t value) {
  using namespace kelm::image;
  if (mask == nullptr) {
    return -1.0F;
  }
  AreaCounts counts = {0, 0};
  if (isImage(mask, height, width)) {
    counts = countAreas(mask, static_cast<std::size_t>(height), static_cast<std::size_t>(width), value);
  }
  const float area = static_cast<float>(counts.area);
  const float boundary = area - static_cast<float>(counts.inner);
  return boundary * boundary / area;
}
