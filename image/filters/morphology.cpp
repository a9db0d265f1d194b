// Dilation and erosion: 3 x 3, and by the count of foreground pixels in a window.
#include "image/filters/morphology.h"

#include "image/filters/box_rows.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

bool maskIsBad(const void *mask, int height, int width) { return mask == nullptr || height < 1 || width < 1; }

// ---- 3 x 3 ----
//
// Three lines of 0 / 255 hold the foreground of the rows above, at and below the current one as they were before the
// call; a fourth holds what they have in common down each column.

struct Lines3x3 {
  std::uint8_t *above;
  std::uint8_t *here;
  std::uint8_t *below;
  std::uint8_t *together;
};

KELM_INLINE void foregroundOfRow(std::uint8_t *__restrict line, const std::uint8_t *__restrict row, std::size_t n) {
  for (std::size_t x = 0; x < n; ++x) {
    line[x] = row[x] != 0 ? 255 : 0;
  }
}

// The foreground that spreads: none from the border of the mask.
KELM_INLINE void spreadingOfRow(std::uint8_t *line, const std::uint8_t *mask, std::size_t y, std::size_t height,
                                std::size_t width) {
  if (y == 0 || y + 1 >= height) {
    std::memset(line, 0, width);
    return;
  }
  foregroundOfRow(line, mask + y * width, width);
  line[0] = 0;
  line[width - 1] = 0;
}

KELM_INLINE void dilateRow(std::uint8_t *__restrict row, const Lines3x3 &lines, std::size_t width) {
  const std::uint8_t *__restrict above = lines.above;
  const std::uint8_t *__restrict here = lines.here;
  const std::uint8_t *__restrict below = lines.below;
  std::uint8_t *__restrict together = lines.together;
  for (std::size_t x = 0; x < width; ++x) {
    together[x] = static_cast<std::uint8_t>(above[x] | here[x] | below[x]);
  }
  row[0] = static_cast<std::uint8_t>(row[0] | together[1]);
  for (std::size_t x = 1; x + 1 < width; ++x) {
    row[x] = static_cast<std::uint8_t>(row[x] | together[x - 1] | above[x] | below[x] | together[x + 1]);
  }
  row[width - 1] = static_cast<std::uint8_t>(row[width - 1] | together[width - 2]);
}

KELM_INLINE void dilateRowsBody(std::uint8_t *mask, std::size_t height, std::size_t width, Lines3x3 lines) {
  std::memset(lines.above, 0, width);
  spreadingOfRow(lines.here, mask, 0, height, width);
  for (std::size_t y = 0; y < height; ++y) {
    spreadingOfRow(lines.below, mask, y + 1, height, width);
    dilateRow(mask + y * width, lines, width);
    lines = {lines.here, lines.below, lines.above, lines.together};
  }
}
KELM_KERNEL(void, dilateRows, (std::uint8_t * mask, std::size_t height, std::size_t width, Lines3x3 lines),
            (mask, height, width, lines), dilateRowsBody)

KELM_INLINE void erodeRow(std::uint8_t *__restrict row, const Lines3x3 &lines, std::size_t width) {
  const std::uint8_t *__restrict above = lines.above;
  const std::uint8_t *__restrict here = lines.here;
  const std::uint8_t *__restrict below = lines.below;
  std::uint8_t *__restrict together = lines.together;
  for (std::size_t x = 0; x < width; ++x) {
    together[x] = static_cast<std::uint8_t>(above[x] & here[x] & below[x]);
  }
  for (std::size_t x = 1; x + 1 < width; ++x) {
    row[x] = static_cast<std::uint8_t>(row[x] & together[x - 1] & together[x] & together[x + 1]);
  }
}

KELM_INLINE void erodeRowsBody(std::uint8_t *mask, std::size_t height, std::size_t width, Lines3x3 lines) {
  foregroundOfRow(lines.above, mask, width);
  foregroundOfRow(lines.here, mask + width, width);
  for (std::size_t y = 1; y + 1 < height; ++y) {
    foregroundOfRow(lines.below, mask + (y + 1) * width, width);
    erodeRow(mask + y * width, lines, width);
    lines = {lines.here, lines.below, lines.above, lines.together};
  }
}
KELM_KERNEL(void, erodeRows, (std::uint8_t * mask, std::size_t height, std::size_t width, Lines3x3 lines),
            (mask, height, width, lines), erodeRowsBody)

std::int32_t morph3x3(std::uint8_t *mask, int height, int width,
                      void (*rows)(std::uint8_t *, std::size_t, std::size_t, Lines3x3)) {
  if (maskIsBad(mask, height, width)) {
    return 2;
  }
  const std::size_t columns = static_cast<std::size_t>(width);
  const Block<std::uint8_t> block = allocate<std::uint8_t>(4 * columns);
  if (block == nullptr) {
    return 1;
  }
  // Without a pixel that is not on the border nothing spreads and nothing is examined.
  if (height > 2 && width > 2) {
    std::uint8_t *line = block.get();
    rows(mask, static_cast<std::size_t>(height), columns,
         {line, line + columns, line + 2 * columns, line + 3 * columns});
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
