// SPDX-License-Identifier: Apache-2.0
// Dilation and erosion of 3 x 3.
//
// Whether something is foreground around a pixel is known from the bitwise or of its neighbours, whether something is
// background from their minimum. Both are taken along the rows first; the lines of the rows above and at the current
// one were made before those rows were overwritten.
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

// Neighbours left and right of each pixel, without and with the pixel itself.
struct Spread {
  std::uint8_t *beside;
  std::uint8_t *around;
};

KELM_INLINE void spreadBlock(std::uint8_t *__restrict beside, std::uint8_t *__restrict around,
                             const std::uint8_t *__restrict row, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t *here = row + i;
    beside[i] = static_cast<std::uint8_t>(here[-1] | here[1]);
    around[i] = static_cast<std::uint8_t>(here[-1] | here[0] | here[1]);
  }
}

// The first and the last pixel of a row spread nothing.
KELM_INLINE void spreadRow(const Spread &line, const std::uint8_t *row, std::size_t width) {
  const auto source = [=](std::size_t x)
                          KELM_INLINE_LAMBDA { return x >= 1 && x + 1 < width ? row[x] : std::uint8_t{0}; };
  for (const std::size_t x : {std::size_t{0}, std::size_t{1}, width - 2, width - 1}) {
    const std::uint8_t left = x == 0 ? std::uint8_t{0} : source(x - 1);
    line.beside[x] = static_cast<std::uint8_t>(left | source(x + 1));
    line.around[x] = static_cast<std::uint8_t>(line.beside[x] | source(x));
  }
  if (width > 4) {
    inBlocks<kBlock>(width - 4, [=](std::size_t x, std::size_t count) KELM_INLINE_LAMBDA {
      spreadBlock(line.beside + 2 + x, line.around + 2 + x, row + 2 + x, count);
    });
  }
}

KELM_INLINE void dilateBlock(std::uint8_t *__restrict row, const std::uint8_t *__restrict above,
                             const std::uint8_t *__restrict beside, const std::uint8_t *__restrict below,
                             std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    row[i] = (above[i] | beside[i] | below[i]) != 0 ? 255 : row[i];
  }
}

KELM_INLINE void dilateRowsBody(std::uint8_t *mask, std::size_t height, std::size_t width, std::uint8_t *lines) {
  std::memset(lines, 0, 4 * width);
  Spread above = {lines, lines + width};
  Spread here = {lines + 2 * width, lines + 3 * width};
  Spread below = {lines + 4 * width, lines + 5 * width};
  for (std::size_t y = 0; y < height; ++y) {
    std::uint8_t *row = mask + y * width;
    if (y + 2 < height) {
      spreadRow(below, row + width, width);
    } else {
      std::memset(below.around, 0, width);
      std::memset(below.beside, 0, width);
    }
    inBlocks<kBlock>(width, [=](std::size_t x, std::size_t count) KELM_INLINE_LAMBDA {
      dilateBlock(row + x, above.around + x, here.beside + x, below.around + x, count);
    });
    const Spread free = above;
    above = here;
    here = below;
    below = free;
  }
}
constexpr auto dilateRows = kernel<dilateRowsBody>;

KELM_INLINE std::uint8_t least(std::uint8_t a, std::uint8_t b, std::uint8_t c) {
  const std::uint8_t ab = a < b ? a : b;
  return ab < c ? ab : c;
}

KELM_INLINE void leastBlock(std::uint8_t *__restrict line, const std::uint8_t *__restrict row, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t *here = row + i;
    line[i] = least(here[-1], here[0], here[1]);
  }
}

KELM_INLINE void erodeBlock(std::uint8_t *__restrict row, const std::uint8_t *__restrict above,
                            const std::uint8_t *__restrict here, const std::uint8_t *__restrict below,
                            std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    row[i] = least(above[i], here[i], below[i]) != 0 ? row[i] : 0;
  }
}

KELM_INLINE void erodeRowsBody(std::uint8_t *mask, std::size_t height, std::size_t width, std::uint8_t *lines) {
  std::uint8_t *above = lines;
  std::uint8_t *here = lines + width;
  std::uint8_t *below = lines + 2 * width;
  const auto leastOfRow = [=](std::uint8_t *line, const std::uint8_t *row) KELM_INLINE_LAMBDA {
    inBlocks<kBlock>(width - 2, [=](std::size_t x, std::size_t count)
                                    KELM_INLINE_LAMBDA { leastBlock(line + 1 + x, row + 1 + x, count); });
  };
  leastOfRow(above, mask);
  leastOfRow(here, mask + width);
  for (std::size_t y = 1; y + 1 < height; ++y) {
    std::uint8_t *row = mask + y * width;
    leastOfRow(below, row + width);
    inBlocks<kBlock>(width - 2, [=](std::size_t x, std::size_t count) KELM_INLINE_LAMBDA {
      erodeBlock(row + 1 + x, above + 1 + x, here + 1 + x, below + 1 + x, count);
    });
    std::uint8_t *const free = above;
    above = here;
    here = below;
    below = free;
  }
}
constexpr auto erodeRows = kernel<erodeRowsBody>;

std::int32_t morph3x3(std::uint8_t *mask, int height, int width,
                      void (*rows)(std::uint8_t *, std::size_t, std::size_t, std::uint8_t *)) {
  if (!isImage(mask, height, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const std::size_t columns = static_cast<std::size_t>(width);
  const Buffer<std::uint8_t> lines = allocate<std::uint8_t>(6 * columns);
  if (lines == nullptr) {
    return KELM_IMAGE_NO_MEMORY;
  }
  // Without a pixel that is not on the border nothing spreads and nothing is examined.
  if (height > 2 && width > 2) {
    rows(mask, static_cast<std::size_t>(height), columns, lines.get());
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
