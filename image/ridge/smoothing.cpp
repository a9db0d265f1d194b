// SPDX-License-Identifier: Apache-2.0
// Mean smoothing, and the removal of thin stripes.
#include "image/ridge/smoothing.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "image/filters/match.h"
#include "image/support/memory.h"
#include "image/support/sse2.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

// sum / 9 for every sum of nine samples: 7282 is 65536 / 9 rounded up.
constexpr std::uint8_t ninth(std::uint32_t sum) { return static_cast<std::uint8_t>(sum * 7282 >> 16); }

constexpr bool ninthIsExact() {
  for (std::uint32_t sum = 0; sum <= 9 * 255; ++sum) {
    if (ninth(sum) != sum / 9) {
      return false;
    }
  }
  return true;
}
static_assert(ninthIsExact());

// out[c] = in[c - 1] + in[c] + in[c + 1], with 0 in the place of samples outside the row.
KELM_INLINE void sumRowBody(std::uint16_t *__restrict out, const std::uint8_t *__restrict in, std::size_t width) {
  if (width == 1) {
    out[0] = in[0];
    return;
  }
  out[0] = static_cast<std::uint16_t>(in[0] + in[1]);
  for (std::size_t c = 1; c + 1 < width; ++c) {
    out[c] = static_cast<std::uint16_t>(in[c - 1] + in[c] + in[c + 1]);
  }
  out[width - 1] = static_cast<std::uint16_t>(in[width - 2] + in[width - 1]);
}
KELM_KERNEL(void, sumRow, (std::uint16_t * out, const std::uint8_t *in, std::size_t width), (out, in, width),
            sumRowBody)

KELM_INLINE void meanRowBody(std::uint8_t *__restrict out, const std::uint16_t *__restrict above,
                             const std::uint16_t *__restrict here, const std::uint16_t *__restrict below,
                             std::size_t width) {
  for (std::size_t c = 0; c < width; ++c) {
    out[c] = ninth(static_cast<std::uint16_t>(above[c] + here[c] + below[c]));
  }
}
KELM_KERNEL(void, meanRow,
            (std::uint8_t * out, const std::uint16_t *above, const std::uint16_t *here, const std::uint16_t *below,
             std::size_t width),
            (out, above, here, below, width), meanRowBody)

// Overwrites the pixels whose bits are set. `count`: how many of the 64 pixels there are.
KELM_INLINE void overwrite(std::uint8_t *pixels, std::uint64_t bits, std::size_t count, std::uint8_t fill) {
  if (count >= 64) {
    const __m128i select = _mm_set1_epi64x(static_cast<long long>(0x8040201008040201));
    const __m128i filled = _mm_set1_epi8(static_cast<char>(fill));
    for (int i = 0; i < 64; i += 16) {
      // Each bit comes into a byte of its own: a byte of eight bits is spread over eight bytes, each keeps one bit.
      const std::uint64_t spread = 0x0101010101010101;
      const auto low = static_cast<long long>((bits >> i & 0xFF) * spread);
      const auto high = static_cast<long long>((bits >> (i + 8) & 0xFF) * spread);
      const __m128i mask = _mm_cmpeq_epi8(_mm_and_si128(_mm_set_epi64x(high, low), select), select);
      store16(pixels + i, _mm_or_si128(_mm_and_si128(mask, filled), _mm_andnot_si128(mask, load16(pixels + i))));
    }
    return;
  }
  for (; bits != 0; bits &= bits - 1) {
    pixels[std::countr_zero(bits)] = fill;
  }
}

// A run is long when it holds a window of longest + 1 pixels. Windows grow by doubling: from windows of n pixels,
// windows of up to 2n. Of the bits that say where a window starts, those at the start of a run tell the long runs.
constexpr std::size_t nextShift(std::size_t reached, std::size_t window) { return std::min(reached, window - reached); }

constexpr std::size_t kLongestWindow = 256;
constexpr std::size_t kPad = kLongestWindow / 2 / 64 + 1;        // words of 0 that a shift may reach into
constexpr std::size_t kRowWords = (INT16_MAX + 63) / 64 + kPad;  // the bits of a row

// out[i] = in[i] & in[i + shift] for bit positions i.
KELM_INLINE void narrowAcross(std::uint64_t *__restrict out, const std::uint64_t *__restrict in, std::size_t words,
                              std::size_t shift) {
  const std::uint64_t *const next = in + shift / 64;
  const unsigned rest = shift % 64;
  for (std::size_t i = 0; i < words; ++i) {
    out[i] = in[i] & (next[i] >> rest | (next[i + 1] << 1) << (63 - rest));
  }
}

// Where windows of pixels along the bits of the words start; `runs` ends with kPad words of 0. The result is
// in one of the two buffers.
KELM_INLINE const std::uint64_t *windowsAcross(const std::uint64_t *runs, std::uint64_t (&buffers)[2][kRowWords],
                                               std::size_t words, std::size_t window) {
  const std::uint64_t *from = runs;
  int to = 0;
  for (std::size_t reached = 1; reached < window;) {
    const std::size_t shift = nextShift(reached, window);
    narrowAcross(buffers[to], from, words, shift);
    std::fill_n(buffers[to] + words, kPad, 0);
    from = buffers[to];
    to ^= 1;
    reached += shift;
  }
  return from;
}

KELM_INLINE void stripRowBody(const Matcher &matcher, std::uint8_t *image, std::size_t base, std::size_t width,
                              std::size_t window, std::uint8_t fill) {
  std::uint64_t runs[kRowWords];
  std::uint64_t buffers[2][kRowWords];
  const std::size_t words = (width + 63) / 64;
  std::uint64_t any = 0;
  for (std::size_t i = 0; i < words; ++i) {
    runs[i] = matchFrom(matcher, base + 64 * i, width - 64 * i);
    any |= runs[i];
  }
  if (any == 0) {
    return;
  }
  std::fill_n(runs + words, kPad, 0);
  const std::uint64_t *const windows = windowsAcross(runs, buffers, words, window);
  std::uint64_t before = 0;
  unsigned char carry = 0;
  for (std::size_t i = 0; i < words; ++i) {
    // Added to the runs, the start of a run clears the whole run and carries into the next word when the run goes on.
    const std::uint64_t starts = runs[i] & ~(runs[i] << 1 | before);
    before = runs[i] >> 63;
    unsigned long long sum = 0;
    const bool first = __builtin_uaddll_overflow(runs[i], windows[i] & starts, &sum);
    const bool second = __builtin_uaddll_overflow(sum, carry, &sum);
    carry = static_cast<unsigned char>(first || second);
    const std::uint64_t stripes = runs[i] & sum;
    if (stripes != 0) {
      overwrite(image + base + 64 * i, stripes, width - 64 * i, fill);
    }
  }
}
KELM_KERNEL(void, stripRow,
            (const Matcher &matcher, std::uint8_t *image, std::size_t base, std::size_t width, std::size_t window,
             std::uint8_t fill),
            (matcher, image, base, width, window, fill), stripRowBody)

// Columns are taken 64 at a time: one word per row. The words of a tile of rows are followed by those of the rows below
// that a window from the tile can reach, its halo.
constexpr std::size_t kColumnWords = 640;

KELM_INLINE void narrowDown(std::uint64_t *__restrict out, const std::uint64_t *__restrict in, std::size_t words,
                            std::size_t shift) {
  for (std::size_t i = 0; i < words; ++i) {
    out[i] = in[i] & in[i + shift];
  }
}

// Where windows of pixels along the words start, but for the last window - 1 words. The result is in one of the two
// buffers.
KELM_INLINE const std::uint64_t *windowsDown(const std::uint64_t *runs, std::uint64_t (&buffers)[2][kColumnWords],
                                             std::size_t words, std::size_t window) {
  const std::uint64_t *from = runs;
  int to = 0;
  for (std::size_t reached = 1; reached < window;) {
    const std::size_t shift = nextShift(reached, window);
    reached += shift;
    narrowDown(buffers[to], from, words + 1 - reached, shift);
    from = buffers[to];
    to ^= 1;
  }
  return from;
}

KELM_INLINE void stripColumnsBody(const Matcher &matcher, std::uint8_t *image, std::size_t height, std::size_t width,
                                  std::size_t column, std::size_t window, std::uint8_t fill) {
  std::uint64_t runs[kColumnWords];
  std::uint64_t buffers[2][kColumnWords];
  const std::size_t halo = window - 1;
  const std::size_t tileRows = kColumnWords - halo;
  std::uint64_t lasting = 0;  // columns in which the row above belongs to a long run
  std::size_t loaded = 0;     // words of `runs` that stand for rows already looked at
  std::size_t next = 0;       // the first row not yet looked at
  for (std::size_t top = 0; top < height; top += tileRows) {
    const std::size_t rows = std::min(tileRows, height - top);
    for (; loaded < rows + halo; ++loaded, ++next) {
      runs[loaded] = next < height ? matchFrom(matcher, next * width + column, width - column) : 0;
    }
    const std::uint64_t *const windows = windowsDown(runs, buffers, rows + halo, window);
    for (std::size_t i = 0; i < rows; ++i) {
      lasting = runs[i] & (lasting | windows[i]);
      const std::uint64_t stripes = runs[i] & ~lasting;
      if (stripes != 0) {
        overwrite(image + (top + i) * width + column, stripes, width - column, fill);
      }
    }
    loaded = halo;
    std::memmove(runs, runs + rows, halo * sizeof(runs[0]));
  }
}
KELM_KERNEL(void, stripColumns,
            (const Matcher &matcher, std::uint8_t *image, std::size_t height, std::size_t width, std::size_t column,
             std::size_t window, std::uint8_t fill),
            (matcher, image, height, width, column, window, fill), stripColumnsBody)

bool bad(const void *image, std::int32_t height, std::int32_t width) {
  return image == nullptr || height < 1 || width < 1;
}

}  // namespace

std::int32_t meanSmooth(const std::uint8_t *source, std::uint8_t *destination, std::int32_t height,
                        std::int32_t width) {
  if (bad(source, height, width) || destination == nullptr) {
    return 2;
  }
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  const Block<std::uint16_t> scratch = allocate<std::uint16_t>(4 * columns);
  if (!scratch) {
    return 1;
  }
  // Where the destination overlaps the source from behind, the rows are done from the last to the first, so that no
  // source row is overwritten before it is read; the filter is the same in both directions.
  const auto from = reinterpret_cast<std::uintptr_t>(source);
  const auto to = reinterpret_cast<std::uintptr_t>(destination);
  const bool backward = to > from && to - from < rows * columns;
  const auto rowAt = [&](std::size_t i) { return (backward ? rows - 1 - i : i) * columns; };
  std::uint16_t *const nothing = scratch.get();
  std::uint16_t *const sums = nothing + columns;
  const auto sumsAt = [&](std::size_t i) { return sums + i % 3 * columns; };
  std::memset(nothing, 0, columns * sizeof(nothing[0]));
  sumRow(sumsAt(0), source + rowAt(0), columns);
  for (std::size_t i = 0; i < rows; ++i) {
    if (i + 1 < rows) {
      sumRow(sumsAt(i + 1), source + rowAt(i + 1), columns);
    }
    meanRow(destination + rowAt(i), i > 0 ? sumsAt(i - 1) : nothing, sumsAt(i), i + 1 < rows ? sumsAt(i + 1) : nothing,
            columns);
  }
  return 0;
}

}  // namespace kelm::image

std::int32_t MeanSmooth(const std::uint8_t *source, std::uint8_t *destination, std::int16_t height,
                        std::int16_t width) {
  return kelm::image::meanSmooth(source, destination, height, width);
}

std::int32_t RemoveStripe(std::uint8_t *image, std::int16_t height, std::int16_t width, std::uint8_t value,
                          std::uint8_t fill, std::uint8_t longest, std::uint8_t direction) {
  using namespace kelm::image;
  if (bad(image, height, width)) {
    return 2;
  }
  if (longest == 0) {
    return 0;
  }
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  const std::size_t window = std::size_t{longest} + 1;
  const Matcher matcher{image, rows * columns, {value, 0}};
  if (direction == 0) {
    for (std::size_t row = 0; row < rows; ++row) {
      stripRow(matcher, image, row * columns, columns, window, fill);
    }
  } else if (direction == 1) {
    for (std::size_t column = 0; column < columns; column += 64) {
      stripColumns(matcher, image, rows, columns, column, window, fill);
    }
  }
  return 0;
}
