// SPDX-License-Identifier: Apache-2.0
// Continuity check: light gaps across a picture.
#include <algorithm>
#include <cstring>

#include "image/filters/match.h"
#include "image/support/arguments.h"
#include "image/support/bits.h"
#include "image/support/kernel.h"
#include "image/support/sse2.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::int32_t kLargest = 1024;  // rows or columns of a picture that can be checked
constexpr std::int32_t kStripRows = 16;

KELM_INLINE std::uint32_t rowSum(const std::uint8_t *row, std::size_t width) {
  std::size_t c = 0;
  const __m128i zero = _mm_setzero_si128();
  __m128i sums[2] = {zero, zero};
  for (; c + 32 <= width; c += 32) {
    for (std::size_t half = 0; half < 2; ++half) {
      sums[half] = _mm_add_epi64(sums[half], _mm_sad_epu8(load16(row + c + 16 * half), zero));
    }
  }
  const __m128i both = _mm_add_epi64(sums[0], sums[1]);
  auto sum = static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_add_epi64(both, _mm_unpackhi_epi64(both, both))));
  for (; c < width; ++c) {
    sum += row[c];
  }
  return sum;
}

KELM_INLINE void projectRowsBody(std::uint32_t *sums, const std::uint8_t *image, std::size_t rows, std::size_t width) {
  for (std::size_t r = 0; r < rows; ++r) {
    sums[r] = rowSum(image + r * width, width);
  }
}
constexpr auto projectRows = kernel<projectRowsBody>;

// The sum of a column over kRows rows: at most 16 x 255.
template <std::size_t kRows>
KELM_INLINE std::int16_t columnSum(const std::uint8_t *top, std::size_t width) {
  std::uint16_t sum = 0;
  for (std::size_t r = 0; r < kRows; ++r) {
    sum = static_cast<std::uint16_t>(sum + top[r * width]);
  }
  return static_cast<std::int16_t>(sum);
}

template <std::size_t kRows>
KELM_INLINE void addColumns(std::uint32_t *__restrict sums, const std::uint8_t *__restrict image, std::size_t width) {
  for (std::size_t c = 0; c < width; ++c) {
    sums[c] += static_cast<std::uint32_t>(columnSum<kRows>(image + c, width));
  }
}

KELM_INLINE void projectColumnsBody(std::uint32_t *sums, const std::uint8_t *image, std::size_t rows,
                                    std::size_t width) {
  std::memset(sums, 0, width * sizeof(sums[0]));
  std::size_t r = 0;
  for (; r + kStripRows <= rows; r += kStripRows) {
    addColumns<kStripRows>(sums, image + r * width, width);
  }
  for (; r < rows; ++r) {
    addColumns<1>(sums, image + r * width, width);
  }
}
constexpr auto projectColumns = kernel<projectColumnsBody>;

// One flag per row or column: 1 when it is light.
KELM_INLINE void flagRowsBody(std::uint8_t *flags, const std::uint8_t *image, std::size_t height, std::size_t width,
                              std::int64_t threshold) {
  for (std::size_t r = 0; r < height; ++r) {
    flags[r] = rowSum(image + r * width, width) > threshold ? 1 : 0;
  }
}
constexpr auto flagRows = kernel<flagRowsBody>;

KELM_INLINE void flagColumnsBody(std::uint8_t *__restrict flags, const std::uint8_t *__restrict strip,
                                 std::size_t width, std::int16_t threshold) {
  for (std::size_t c = 0; c < width; ++c) {
    flags[c] = columnSum<kStripRows>(strip + c, width) > threshold ? 1 : 0;
  }
}
constexpr auto flagColumns = kernel<flagColumnsBody>;

// How many runs of flags start in firstStart..lastStart, end (with their last flag) in firstEnd..lastEnd and are at
// least `least` long. A run that reaches the last entry does not count.
struct RunRule {
  std::int32_t firstStart, lastStart, firstEnd, lastEnd, least;
};

std::int32_t countRuns(const std::uint8_t *flags, std::size_t entries, const RunRule &rule) {
  const Matcher matcher{flags, entries, {1, 0}};
  std::int32_t count = 0;
  forEachRun(
      entries, [&](std::size_t at) { return matchFrom(matcher, at); },
      [&](std::size_t first, std::size_t end) {
        const auto start = static_cast<std::int32_t>(first);
        const auto last = static_cast<std::int32_t>(end) - 1;
        count += end < entries && start >= rule.firstStart && start <= rule.lastStart && last >= rule.firstEnd &&
                         last <= rule.lastEnd && last - start >= rule.least - 1
                     ? 1
                     : 0;
      });
  return count;
}

bool notContinue(const std::uint8_t *image, std::int32_t height, std::int32_t width, std::int32_t level) {
  std::uint8_t flags[kLargest];
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  flagRows(flags, image, rows, columns, std::int64_t{width - 10} * level);
  const auto printRows = std::count(flags, flags + rows, 0);
  if (countRuns(flags, rows, {4, height - 10, 10, height - 5, 1}) > 0) {
    return true;
  }
  // The strips' sums stay below 16 x 255; thresholds outside that range act like the nearest one inside.
  const auto threshold = static_cast<std::int16_t>(std::clamp<std::int64_t>(std::int64_t{15} * level, -1, INT16_MAX));
  std::int32_t gaps = 0;
  for (std::int32_t strip = 0; strip < height / kStripRows; ++strip) {
    flagColumns(flags, image + static_cast<std::size_t>(strip) * kStripRows * columns, columns, threshold);
    gaps += countRuns(flags, columns, {16, width - 15, 15, width - 16, 7});
  }
  // Without print rows this is infinite, or, without gaps, no number, which is not greater.
  const float ratio = static_cast<float>(gaps * kStripRows) / static_cast<float>(printRows);
  return static_cast<double>(ratio) > 0.45;
}

}  // namespace
}  // namespace kelm::image

void Project(std::int32_t *sums, const std::uint8_t *image, std::int32_t rows, std::int32_t width, std::uint32_t mode) {
  using namespace kelm::image;
  if (sums == nullptr || image == nullptr) {
    return;
  }
  // Without columns, the sums of the rows are 0, and the other way round.
  const auto extent = [](std::int32_t samples) { return static_cast<std::size_t>(std::max(samples, 0)); };
  auto *const unsignedSums = reinterpret_cast<std::uint32_t *>(sums);
  (mode == 0 ? projectRows : projectColumns)(unsignedSums, image, extent(rows), extent(width));
}

std::int32_t NotContinue(const std::uint8_t *image, std::int32_t height, std::int32_t width, std::int32_t level) {
  using namespace kelm::image;
  const bool fits = isImage(image, height, width) && height <= kLargest && width <= kLargest;
  return fits && notContinue(image, height, width, level) ? 1 : 0;
}
