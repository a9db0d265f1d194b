// SPDX-License-Identifier: Apache-2.0
// Dilation and erosion of 3 x 3.
//
// Whether something is foreground around a pixel is known from the bitwise or of its neighbours, whether something is
// background from their minimum. Four rows are made at a time: they share what there is along the rows between them.
// They are made from copies, in lines that begin at a cache line, since they overwrite the mask.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/filters/morphology.h"
#include "image/support/arguments.h"
#include "image/support/blocks.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::size_t kBlock = 64;
constexpr std::size_t kTogether = 4;
constexpr std::size_t kCopies = kTogether + 2;

// Scratch lines: the copies, and one for each row past the last. At both ends of a line there is a 0.
constexpr std::size_t kLines = kCopies + kTogether - 1;

constexpr std::size_t strideOf(std::size_t width) { return (width / kCacheLine + 1) * kCacheLine; }

// A pixel in each of the rows, and the copies that they are made from.
using Pixels = std::uint8_t[kTogether];
using Copies = const std::uint8_t *[kCopies];

KELM_INLINE void spreadAround(Pixels &pixels, const Copies &copies, std::size_t x) {
  std::uint8_t beside[kCopies];
  std::uint8_t around[kCopies];
  for (std::size_t k = 0; k < kCopies; ++k) {
    beside[k] = static_cast<std::uint8_t>(copies[k][x - 1] | copies[k][x + 1]);
    around[k] = static_cast<std::uint8_t>(beside[k] | copies[k][x]);
  }
  for (std::size_t k = 0; k < kTogether; ++k) {
    pixels[k] = static_cast<std::uint8_t>(around[k] | beside[k + 1] | around[k + 2]);
  }
}

KELM_INLINE std::uint8_t lesser(std::uint8_t a, std::uint8_t b) { return a < b ? a : b; }

KELM_INLINE void leastAround(Pixels &pixels, const Copies &copies, std::size_t x) {
  std::uint8_t least[kCopies];
  for (std::size_t k = 0; k < kCopies; ++k) {
    least[k] = lesser(lesser(copies[k][x - 1], copies[k][x]), copies[k][x + 1]);
  }
  for (std::size_t k = 0; k < kTogether; k += 2) {
    const std::uint8_t both = lesser(least[k + 1], least[k + 2]);
    pixels[k] = lesser(least[k], both);
    pixels[k + 1] = lesser(both, least[k + 3]);
  }
}

template <bool kDilate>
KELM_INLINE void morphBlock(std::uint8_t *__restrict a, std::uint8_t *__restrict b, std::uint8_t *__restrict c,
                            std::uint8_t *__restrict d, const Copies &copies, std::size_t first, std::size_t count) {
  for (std::size_t x = first; x < first + count; ++x) {
    Pixels around;
    if constexpr (kDilate) {
      spreadAround(around, copies, x);
      a[x] = around[0] != 0 ? 255 : a[x];
      b[x] = around[1] != 0 ? 255 : b[x];
      c[x] = around[2] != 0 ? 255 : c[x];
      d[x] = around[3] != 0 ? 255 : d[x];
    } else {
      leastAround(around, copies, x);
      a[x] = around[0] != 0 ? copies[1][x] : 0;
      b[x] = around[1] != 0 ? copies[2][x] : 0;
      c[x] = around[2] != 0 ? copies[3][x] : 0;
      d[x] = around[3] != 0 ? copies[4][x] : 0;
    }
  }
}

// A row of the mask, or of what lies around it. For a dilation the border is background, which spreads nothing.
template <bool kDilate>
KELM_INLINE void copyRow(std::uint8_t *line, const std::uint8_t *mask, std::size_t y, std::size_t height,
                         std::size_t width) {
  if (y >= height || (kDilate && (y == 0 || y == height - 1))) {
    std::memset(line, 0, width);
    return;
  }
  std::memcpy(line, mask + y * width, width);
  if (kDilate) {
    line[0] = line[width - 1] = 0;
  }
}

template <bool kDilate>
KELM_INLINE void morphRowsBody(std::uint8_t *mask, std::size_t height, std::size_t width, std::uint8_t *scratch) {
  const std::size_t stride = strideOf(width);
  const std::size_t first = kDilate ? 0 : 1;
  const std::size_t end = kDilate ? height : height - 1;
  std::uint8_t *lines[kCopies];  // of rows y - 1 to y + kTogether
  for (std::size_t k = 0; k < kCopies; ++k) {
    lines[k] = scratch + k * stride;
  }
  for (std::size_t y = 0; y <= first; ++y) {
    copyRow<kDilate>(lines[y + 1 - first], mask, y, height, width);
  }
  for (std::size_t y = first; y < end; y += kTogether) {
    std::uint8_t *rows[kTogether];
    for (std::size_t k = 0; k < kTogether; ++k) {
      copyRow<kDilate>(lines[k + 2], mask, y + k + 1, height, width);
      rows[k] = y + k < end ? mask + (y + k) * width : scratch + (kLines - k) * stride;
    }
    const Copies copies = {lines[0], lines[1], lines[2], lines[3], lines[4], lines[5]};
    inOneStretch<kBlock>(width, [&](std::size_t x, std::size_t count) KELM_INLINE_LAMBDA {
      morphBlock<kDilate>(rows[0], rows[1], rows[2], rows[3], copies, x, count);
    });
    for (std::size_t k = 0; !kDilate && k < kTogether; ++k) {
      rows[k][0] = copies[k + 1][0];
      rows[k][width - 1] = copies[k + 1][width - 1];
    }
    std::rotate(lines, lines + kTogether, lines + kCopies);
  }
}
constexpr auto dilateRows = kernel<morphRowsBody<true>>;
constexpr auto erodeRows = kernel<morphRowsBody<false>>;

std::int32_t morph3x3(std::uint8_t *mask, int height, int width,
                      void (*rows)(std::uint8_t *, std::size_t, std::size_t, std::uint8_t *)) {
  if (!isImage(mask, height, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const std::size_t columns = static_cast<std::size_t>(width);
  const std::size_t bytes = kCacheLine + kLines * strideOf(columns);
  const AlignedBuffer<std::uint8_t> scratch = allocateAligned<std::uint8_t>(bytes);
  if (!scratch) {
    return KELM_IMAGE_NO_MEMORY;
  }
  // Without a pixel that is not on the border nothing spreads and nothing is examined.
  if (height > 2 && width > 2) {
    std::memset(scratch.samples, 0, bytes);
    rows(mask, static_cast<std::size_t>(height), columns, scratch.samples + kCacheLine);
  }
  return KELM_IMAGE_OK;
}

}  // namespace

std::int32_t dilate3x3(std::uint8_t *mask, int height, int width) { return morph3x3(mask, height, width, dilateRows); }

std::int32_t erode3x3(std::uint8_t *mask, int height, int width) { return morph3x3(mask, height, width, erodeRows); }

}  // namespace kelm::image

using namespace kelm::image;

int32_t BDilate(uint8_t *mask, int16_t height, int16_t width) { return dilate3x3(mask, height, width); }

int32_t BErode(uint8_t *mask, int16_t height, int16_t width) { return erode3x3(mask, height, width); }
