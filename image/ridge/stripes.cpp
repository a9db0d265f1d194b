// SPDX-License-Identifier: Apache-2.0
// Removal of thin stripes: runs of a grey level that are at most so many pixels long.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/filters/match.h"
#include "image/support/arguments.h"
#include "image/support/bits.h"
#include "image/support/kernel.h"
#include "image/support/sse2.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

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
  forEachBit(bits, [=](std::size_t i) KELM_INLINE_LAMBDA { pixels[i] = fill; });
}

// A run is long when it holds a window of longest + 1 pixels. Windows grow by doubling: from windows of n pixels,
// windows of up to 2n. Of the bits that say where a window starts, those at the start of a run identify the long runs.
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

KELM_INLINE void eraseInRowBody(const Matcher &matcher, std::uint8_t *image, std::size_t base, std::size_t width,
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
    const std::uint64_t starts = runStarts(runs[i], before);
    before = runs[i] >> (kWordBits - 1);
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
constexpr auto eraseInRow = kernel<eraseInRowBody>;

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

KELM_INLINE void eraseInColumnsBody(const Matcher &matcher, std::uint8_t *image, std::size_t height, std::size_t width,
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
constexpr auto eraseInColumns = kernel<eraseInColumnsBody>;

}  // namespace
}  // namespace kelm::image

std::int32_t RemoveStripe(std::uint8_t *image, std::int16_t height, std::int16_t width, std::uint8_t value,
                          std::uint8_t fill, std::uint8_t longest, std::uint8_t direction) {
  using namespace kelm::image;
  if (!isImage(image, height, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  if (longest == 0) {
    return KELM_IMAGE_OK;
  }
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  const std::size_t window = std::size_t{longest} + 1;
  const Matcher matcher{image, rows * columns, {value, 0}};
  if (direction == 0) {
    for (std::size_t row = 0; row < rows; ++row) {
      eraseInRow(matcher, image, row * columns, columns, window, fill);
    }
  } else if (direction == 1) {
    for (std::size_t column = 0; column < columns; column += 64) {
      eraseInColumns(matcher, image, rows, columns, column, window, fill);
    }
  }
  return KELM_IMAGE_OK;
}
