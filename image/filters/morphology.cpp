// SPDX-License-Identifier: Apache-2.0
// Dilation and erosion: 3 x 3, and by the count of foreground pixels in a window.
#include "image/filters/morphology.h"

#include <type_traits>

#include "image/filters/box_rows.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

bool maskIsBad(const void *mask, int height, int width) { return mask == nullptr || height < 1 || width < 1; }

// ---- 3 x 3 ----
//
// Whether something is foreground around a pixel is known from the bitwise or of its neighbours, whether something is
// background from their minimum. Both are taken along the rows first; the lines of the rows above and at the current
// one were made before those rows were overwritten.

constexpr std::size_t kBlock = 64;

// step(x, count) for blocks of samples that cover first to last - 1. The last block may overlap the one before, so a
// step done twice must give what it gives when done once.
template <typename Step>
KELM_INLINE void inBlocks(std::size_t first, std::size_t last, Step step) {
  if (last - first < kBlock) {
    for (std::size_t x = first; x < last; ++x) {
      step(x, std::integral_constant<std::size_t, 1>());
    }
    return;
  }
  for (std::size_t x = first; x + kBlock < last; x += kBlock) {
    step(x, std::integral_constant<std::size_t, kBlock>());
  }
  step(last - kBlock, std::integral_constant<std::size_t, kBlock>());
}

// Neighbours left and right of each pixel, without and with the pixel itself.
struct Spread {
  std::uint8_t *beside;
  std::uint8_t *around;
};

template <std::size_t kCount>
KELM_INLINE void spreadBlock(std::uint8_t *__restrict beside, std::uint8_t *__restrict around,
                             const std::uint8_t *__restrict row) {
  for (std::size_t i = 0; i < kCount; ++i) {
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
    inBlocks(2, width - 2, [=](std::size_t x, auto count) KELM_INLINE_LAMBDA {
      spreadBlock<count>(line.beside + x, line.around + x, row + x);
    });
  }
}

template <std::size_t kCount>
KELM_INLINE void dilateBlock(std::uint8_t *__restrict row, const std::uint8_t *__restrict above,
                             const std::uint8_t *__restrict beside, const std::uint8_t *__restrict below) {
  for (std::size_t i = 0; i < kCount; ++i) {
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
    inBlocks(0, width, [=](std::size_t x, auto count) KELM_INLINE_LAMBDA {
      dilateBlock<count>(row + x, above.around + x, here.beside + x, below.around + x);
    });
    const Spread free = above;
    above = here;
    here = below;
    below = free;
  }
}
KELM_KERNEL(void, dilateRows, (std::uint8_t * mask, std::size_t height, std::size_t width, std::uint8_t *lines),
            (mask, height, width, lines), dilateRowsBody)

KELM_INLINE std::uint8_t least(std::uint8_t a, std::uint8_t b, std::uint8_t c) {
  const std::uint8_t ab = a < b ? a : b;
  return ab < c ? ab : c;
}

template <std::size_t kCount>
KELM_INLINE void leastBlock(std::uint8_t *__restrict line, const std::uint8_t *__restrict row) {
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::uint8_t *here = row + i;
    line[i] = least(here[-1], here[0], here[1]);
  }
}

template <std::size_t kCount>
KELM_INLINE void erodeBlock(std::uint8_t *__restrict row, const std::uint8_t *__restrict above,
                            const std::uint8_t *__restrict here, const std::uint8_t *__restrict below) {
  for (std::size_t i = 0; i < kCount; ++i) {
    row[i] = least(above[i], here[i], below[i]) != 0 ? row[i] : 0;
  }
}

KELM_INLINE void erodeRowsBody(std::uint8_t *mask, std::size_t height, std::size_t width, std::uint8_t *lines) {
  std::uint8_t *above = lines;
  std::uint8_t *here = lines + width;
  std::uint8_t *below = lines + 2 * width;
  const auto leastOfRow = [=](std::uint8_t *line, const std::uint8_t *row) KELM_INLINE_LAMBDA {
    inBlocks(1, width - 1, [=](std::size_t x, auto count) KELM_INLINE_LAMBDA { leastBlock<count>(line + x, row + x); });
  };
  leastOfRow(above, mask);
  leastOfRow(here, mask + width);
  for (std::size_t y = 1; y + 1 < height; ++y) {
    std::uint8_t *row = mask + y * width;
    leastOfRow(below, row + width);
    inBlocks(1, width - 1, [=](std::size_t x, auto count) KELM_INLINE_LAMBDA {
      erodeBlock<count>(row + x, above + x, here + x, below + x);
    });
    std::uint8_t *const free = above;
    above = here;
    here = below;
    below = free;
  }
}
KELM_KERNEL(void, erodeRows, (std::uint8_t * mask, std::size_t height, std::size_t width, std::uint8_t *lines),
            (mask, height, width, lines), erodeRowsBody)

std::int32_t morph3x3(std::uint8_t *mask, int height, int width,
                      void (*rows)(std::uint8_t *, std::size_t, std::size_t, std::uint8_t *)) {
  if (maskIsBad(mask, height, width)) {
    return 2;
  }
  const std::size_t columns = static_cast<std::size_t>(width);
  const Block<std::uint8_t> lines = allocate<std::uint8_t>(6 * columns);
  if (lines == nullptr) {
    return 1;
  }
  // Without a pixel that is not on the border nothing spreads and nothing is examined.
  if (height > 2 && width > 2) {
    rows(mask, static_cast<std::size_t>(height), columns, lines.get());
  }
  return 0;
}

// ---- By count ----

using Scratch8 = BoxScratch<std::uint8_t, std::uint8_t>;
using Scratch16 = BoxScratch<std::uint16_t, std::uint16_t>;
using Scratch8To16 = BoxScratch<std::uint16_t, std::uint8_t>;

// Counts of 8-bit 0 / 1 masks, modulo 256: sets what reaches the threshold, keeps the rest.
KELM_INLINE void setFromBody(std::uint8_t *mask, const BoxShape &shape, const Scratch8 &scratch,
                             std::uint8_t threshold) {
  boxRows(
      mask, mask, shape, scratch, [](std::uint8_t sample) KELM_INLINE_LAMBDA { return sample; },
      [=](std::uint8_t old, std::uint8_t count)
          KELM_INLINE_LAMBDA { return count >= threshold ? std::uint8_t{1} : old; });
}
KELM_KERNEL(void, setFrom,
            (std::uint8_t * mask, const BoxShape &shape, const Scratch8 &scratch, std::uint8_t threshold),
            (mask, shape, scratch, threshold), setFromBody)

KELM_INLINE void clearUnlessBody(std::uint8_t *mask, const BoxShape &shape, const Scratch8 &scratch,
                                 std::uint8_t area) {
  boxRows(
      mask, mask, shape, scratch, [](std::uint8_t sample) KELM_INLINE_LAMBDA { return sample; },
      [=](std::uint8_t old, std::uint8_t count) KELM_INLINE_LAMBDA { return count == area ? old : std::uint8_t{0}; });
}
KELM_KERNEL(void, clearUnless, (std::uint8_t * mask, const BoxShape &shape, const Scratch8 &scratch, std::uint8_t area),
            (mask, shape, scratch, area), clearUnlessBody)

// foreground where first <= count <= last, 0 elsewhere.
template <typename Count>
struct Band {
  Count first;
  Count last;
  std::uint8_t foreground;
};

template <typename Count, typename Sample, typename Read>
KELM_INLINE void bandRows(Sample *mask, const BoxShape &shape, const BoxScratch<Count, Sample> &scratch,
                          const Band<Count> &band, Read read) {
  boxRows(mask, mask, shape, scratch, read, [=](Sample, Count count) KELM_INLINE_LAMBDA {
    return static_cast<Sample>(count >= band.first && count <= band.last ? band.foreground : 0);
  });
}

KELM_INLINE void samplesInBandBody(std::uint16_t *mask, const BoxShape &shape, const Scratch16 &scratch,
                                   const Band<std::uint16_t> &band) {
  bandRows(mask, shape, scratch, band, [](std::uint16_t sample) KELM_INLINE_LAMBDA { return sample; });
}
KELM_KERNEL(void, samplesInBand,
            (std::uint16_t * mask, const BoxShape &shape, const Scratch16 &scratch, const Band<std::uint16_t> &band),
            (mask, shape, scratch, band), samplesInBandBody)

template <typename Count>
KELM_INLINE void foregroundInBandBody(std::uint8_t *mask, const BoxShape &shape,
                                      const BoxScratch<Count, std::uint8_t> &scratch, const Band<Count> &band) {
  bandRows(mask, shape, scratch, band,
           [](std::uint8_t sample) KELM_INLINE_LAMBDA { return static_cast<Count>(sample != 0 ? 1 : 0); });
}
KELM_KERNEL(void, foregroundInBand,
            (std::uint8_t * mask, const BoxShape &shape, const Scratch8 &scratch, const Band<std::uint8_t> &band),
            (mask, shape, scratch, band), foregroundInBandBody)
KELM_KERNEL(void, foregroundInBand,
            (std::uint8_t * mask, const BoxShape &shape, const Scratch8To16 &scratch, const Band<std::uint16_t> &band),
            (mask, shape, scratch, band), foregroundInBandBody)

using ByteMorphology = void (*)(std::uint8_t *, const BoxShape &, const Scratch8 &, std::uint8_t);

std::int32_t morphBytes(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY,
                        ByteMorphology morph, int threshold) {
  if (maskIsBad(mask, height, width) || sizeX * sizeY > 255) {
    return 2;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const Scratch8 scratch(shape, true);
  if (scratch.block == nullptr) {
    return 1;
  }
  morph(mask, shape, scratch, static_cast<std::uint8_t>(threshold));
  return 0;
}

Band<std::uint16_t> dilationBand(std::uint8_t sizeX, std::uint8_t sizeY, std::uint8_t foreground) {
  return {static_cast<std::uint16_t>(0.7 + sizeX * sizeY * 0.18), UINT16_MAX, foreground};
}

Band<std::uint16_t> erosionBand(std::uint8_t sizeX, std::uint8_t sizeY, std::uint8_t foreground) {
  const std::uint16_t area = static_cast<std::uint16_t>(sizeX * sizeY);
  return {area, area, foreground};
}

std::int32_t morphSamples(std::uint16_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY,
                          const Band<std::uint16_t> &band) {
  if (maskIsBad(mask, height, width)) {
    return 2;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const Scratch16 scratch(shape, true);
  if (scratch.block == nullptr) {
    return 1;
  }
  samplesInBand(mask, shape, scratch, band);
  return 0;
}

template <typename Count>
std::int32_t morphForeground(std::uint8_t *mask, const BoxShape &shape, const Band<Count> &band) {
  const BoxScratch<Count, std::uint8_t> scratch(shape, true);
  if (scratch.block == nullptr) {
    return 1;
  }
  foregroundInBand(mask, shape, scratch, band);
  return 0;
}

std::int32_t morphForeground(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY,
                             const Band<std::uint16_t> &band) {
  if (maskIsBad(mask, height, width)) {
    return 2;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  // Counts of small windows fit bytes; the threshold is then below 256 too, as it is at most the window's area.
  if (shape.spanX() * (2 * shape.halfY + 1) <= UINT8_MAX) {
    const std::uint8_t last = static_cast<std::uint8_t>(std::min<std::uint16_t>(band.last, UINT8_MAX));
    return morphForeground<std::uint8_t>(mask, shape, {static_cast<std::uint8_t>(band.first), last, band.foreground});
  }
  return morphForeground<std::uint16_t>(mask, shape, band);
}

}  // namespace

std::int32_t dilate3x3(std::uint8_t *mask, int height, int width) { return morph3x3(mask, height, width, dilateRows); }

std::int32_t erode3x3(std::uint8_t *mask, int height, int width) { return morph3x3(mask, height, width, erodeRows); }

std::int32_t dilateByCount(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  return morphForeground(mask, height, width, sizeX, sizeY, dilationBand(sizeX, sizeY, 255));
}

std::int32_t erodeByCount(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  return morphForeground(mask, height, width, sizeX, sizeY, erosionBand(sizeX, sizeY, 255));
}

}  // namespace kelm::image

using namespace kelm::image;

int32_t BDilate(uint8_t *mask, int16_t height, int16_t width) { return dilate3x3(mask, height, width); }

int32_t BErode(uint8_t *mask, int16_t height, int16_t width) { return erode3x3(mask, height, width); }

int32_t BWDilateFast(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY) {
  return morphBytes(mask, height, width, sizeX, sizeY, setFrom, static_cast<int>(0.1 * (sizeX * sizeY) + 0.7));
}

int32_t BWErodeFast(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY) {
  return morphBytes(mask, height, width, sizeX, sizeY, clearUnless, sizeX * sizeY);
}

int32_t BWDilateFastUint16(uint16_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY) {
  return morphSamples(mask, height, width, sizeX, sizeY, dilationBand(sizeX, sizeY, 1));
}

int32_t BWErodeFastUint16(uint16_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY) {
  return morphSamples(mask, height, width, sizeX, sizeY, erosionBand(sizeX, sizeY, 1));
}

int32_t MY_BWDilateFastUint16(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY) {
  return dilateByCount(mask, height, width, sizeX, sizeY);
}

int32_t MY_BWErodeFastUint16(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY) {
  return erodeByCount(mask, height, width, sizeX, sizeY);
}
