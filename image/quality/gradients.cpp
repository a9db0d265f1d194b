// Four-direction gradients.
#include "image/quality/gradients.h"

#include <algorithm>
#include <cstdlib>

#include "image/support/dispatch.h"
#include "image/support/memory.h"
#include "kelmtrova/image.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kelm::image {
namespace {

constexpr int kSamples = 7;  // of a point: itself and three neighbours on either side

// The step from one neighbour to the next; those on the other side lie opposite.
struct Direction {
  std::ptrdiff_t x;
  std::ptrdiff_t y;
};
constexpr Direction kSteps[kDirections] = {{1, 0}, {1, -1}, {0, 1}, {1, 1}};

// sum / 7 for every sum of seven samples: 9363 is 65536 / 7 rounded up.
constexpr std::uint32_t seventh(std::uint32_t sum) { return sum * 9363 >> 16; }

constexpr bool seventhIsExact() {
  for (std::uint32_t sum = 0; sum <= 7 * 255; ++sum) {
    if (seventh(sum) != sum / 7) {
      return false;
    }
  }
  return true;
}
static_assert(seventhIsExact());

constexpr std::size_t kChunk = 32;  // points worked on at a time

// The samples at in[0], in[4], ... in[4 * (kChunk - 1)]. Reads the three bytes before in[0] too.
KELM_INLINE void gatherFourth(std::uint8_t *__restrict out, const std::uint8_t *__restrict in) {
#if defined(__SSE2__)
  for (std::size_t i = 0; i < kChunk; i += 16) {
    __m128i words[4];
    for (std::size_t j = 0; j < 4; ++j) {
      const auto *const where = reinterpret_cast<const __m128i *>(in - 3 + 4 * i + 16 * j);
      words[j] = _mm_srli_epi32(_mm_loadu_si128(where), 24);
    }
    const __m128i low = _mm_packs_epi32(words[0], words[1]);
    const __m128i high = _mm_packs_epi32(words[2], words[3]);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm_packus_epi16(low, high));
  }
#else
  for (std::size_t i = 0; i < kChunk; ++i) {
    out[i] = in[4 * i];
  }
#endif
}

KELM_INLINE void gradientsOf(std::uint16_t *__restrict out, const std::uint8_t (&planes)[kSamples][kChunk],
                             std::size_t points) {
  for (std::size_t i = 0; i < points; ++i) {
    std::uint16_t sum = 0;
    for (int k = 0; k < kSamples; ++k) {
      sum = static_cast<std::uint16_t>(sum + planes[k][i]);
    }
    const auto mean = static_cast<std::int16_t>(seventh(sum));
    std::uint16_t total = 0;
    for (int k = 0; k < kSamples; ++k) {
      if (k != kSamples / 2) {
        const auto difference = static_cast<std::int16_t>(planes[k][i] - mean);
        total = static_cast<std::uint16_t>(total + (difference < 0 ? -difference : difference));
      }
    }
    out[i] = total;
  }
}

// `center`: the first of the points, which lie `step` pixels apart; `offset`: from a neighbour to the next one. The
// last whole chunk overlaps the one before it, so that only fewer than kChunk points in all are taken one by one.
KELM_INLINE void gradientsBody(std::uint16_t *out, const std::uint8_t *center, std::size_t step, std::size_t points,
                               std::ptrdiff_t offset) {
  std::uint8_t planes[kSamples][kChunk];
  const std::size_t chunk = std::min(points, kChunk);
  for (std::size_t done = 0; done < points; done += chunk) {
    const std::size_t first = std::min(done, points - chunk);
    for (int k = 0; k < kSamples; ++k) {
      const std::uint8_t *const samples = center + first * step + (k - kSamples / 2) * offset;
      if (step == 4 && chunk == kChunk) {
        gatherFourth(planes[k], samples);
      } else {
        for (std::size_t i = 0; i < chunk; ++i) {
          planes[k][i] = samples[i * step];
        }
      }
    }
    if (chunk == kChunk) {
      gradientsOf(out + first, planes, kChunk);
    } else {
      gradientsOf(out + first, planes, chunk);
    }
  }
}
KELM_KERNEL(void, gradients,
            (std::uint16_t * out, const std::uint8_t *center, std::size_t step, std::size_t points,
             std::ptrdiff_t offset),
            (out, center, step, points, offset), gradientsBody)

bool bad(const std::uint8_t *image, std::int32_t height, std::int32_t width) {
  return image == nullptr || height < 1 || width < 1;
}

}  // namespace

GradientGrid gradientGrid(const std::uint8_t *image, std::int32_t height, std::int32_t width, std::int32_t step) {
  return {image, static_cast<std::size_t>(width), static_cast<std::size_t>(step),
          static_cast<std::size_t>(height / step), static_cast<std::size_t>(width / step)};
}

void gradientRow(std::uint16_t *out, const GradientGrid &grid, std::size_t row, std::size_t first, std::size_t last,
                 int direction) {
  if (first >= last) {
    return;
  }
  const Direction toNext = kSteps[direction];
  const std::ptrdiff_t offset = toNext.x + toNext.y * static_cast<std::ptrdiff_t>(grid.width);
  const std::uint8_t *const line = grid.image + row * grid.step * grid.width;
  gradients(out, line + first * grid.step, grid.step, last - first, offset);
}

}  // namespace kelm::image

std::uint32_t FpGetImg4DirectionGrads(const std::uint8_t *image, std::int16_t height, std::int16_t width,
                                      std::uint16_t **map, std::uint8_t direction, std::uint8_t step) {
  using namespace kelm::image;
  // The last point of a row or column may lie as close as `step` pixels to the far edge, the neighbours reach 3
  // further.
  constexpr int kLeastStep = 4;
  if (bad(image, height, width) || map == nullptr || step < kLeastStep || direction >= kDirections) {
    return 2;
  }
  const GradientGrid grid = gradientGrid(image, height, width, step);
  Block<std::uint16_t> values = allocateZeroed<std::uint16_t>(grid.rows * grid.cols);
  for (std::size_t row = 1; values && row < grid.rows; ++row) {
    gradientRow(values.get() + row * grid.cols + 1, grid, row, 1, grid.cols, direction);
  }
  *map = values.release();
  return *map == nullptr ? 1 : 0;
}

std::uint16_t **FpGetImg4DirectionGradsEx(const std::uint8_t *image, std::int16_t height, std::int16_t width,
                                          std::uint8_t step) {
  using namespace kelm::image;
  constexpr int kLeastStep = 3;
  if (bad(image, height, width) || step < kLeastStep) {
    return nullptr;
  }
  const GradientGrid grid = gradientGrid(image, height, width, step);
  Block<std::uint16_t *> maps = allocate<std::uint16_t *>(kDirections);
  Block<std::uint16_t> owned[kDirections];
  for (Block<std::uint16_t> &values : owned) {
    values = allocateZeroed<std::uint16_t>(grid.rows * grid.cols);
    if (!maps || !values) {
      return nullptr;
    }
  }
  for (std::size_t row = 1; row + 1 < grid.rows; ++row) {
    for (int d = 0; d < kDirections; ++d) {
      gradientRow(owned[d].get() + row * grid.cols + 1, grid, row, 1, grid.cols - std::min<std::size_t>(grid.cols, 1),
                  d);
    }
  }
  for (int d = 0; d < kDirections; ++d) {
    maps[static_cast<std::size_t>(d)] = owned[d].release();
  }
  return maps.release();
}
