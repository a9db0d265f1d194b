// SPDX-License-Identifier: Apache-2.0
// Dilation and erosion by the count of foreground pixels in a window.
#include <algorithm>
#include <cstdint>

#include "image/filters/box_rows.h"
#include "image/filters/morphology.h"
#include "image/support/arguments.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

using Scratch8 = BoxScratch<std::uint8_t, std::uint8_t>;
using Scratch16 = BoxScratch<std::uint16_t, std::uint16_t>;

// Counts of 8-bit 0 / 1 masks, modulo 256: sets what reaches the threshold, keeps the rest.
KELM_INLINE void setFromBody(std::uint8_t *mask, const BoxShape &shape, const Scratch8 &scratch,
                             std::uint8_t threshold) {
  boxRows(
      mask, mask, shape, scratch, [](std::uint8_t sample) KELM_INLINE_LAMBDA { return sample; },
      [=](std::uint8_t old, std::uint8_t count)
          KELM_INLINE_LAMBDA { return count >= threshold ? std::uint8_t{1} : old; });
}
constexpr auto setFrom = kernel<setFromBody>;

KELM_INLINE void clearUnlessBody(std::uint8_t *mask, const BoxShape &shape, const Scratch8 &scratch,
                                 std::uint8_t area) {
  boxRows(
      mask, mask, shape, scratch, [](std::uint8_t sample) KELM_INLINE_LAMBDA { return sample; },
      [=](std::uint8_t old, std::uint8_t count) KELM_INLINE_LAMBDA { return count == area ? old : std::uint8_t{0}; });
}
constexpr auto clearUnless = kernel<clearUnlessBody>;

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
  boxRows(mask, mask, shape, scratch, read, [=](Count count) KELM_INLINE_LAMBDA {
    return static_cast<Sample>(count >= band.first && count <= band.last ? band.foreground : 0);
  });
}

KELM_INLINE void samplesInBandBody(std::uint16_t *mask, const BoxShape &shape, const Scratch16 &scratch,
                                   const Band<std::uint16_t> &band) {
  bandRows(mask, shape, scratch, band, [](std::uint16_t sample) KELM_INLINE_LAMBDA { return sample; });
}
constexpr auto samplesInBand = kernel<samplesInBandBody>;

template <typename Count>
KELM_INLINE void foregroundInBandBody(std::uint8_t *mask, const BoxShape &shape,
                                      const BoxScratch<Count, std::uint8_t> &scratch, const Band<Count> &band) {
  bandRows(mask, shape, scratch, band,
           [](std::uint8_t sample) KELM_INLINE_LAMBDA { return static_cast<Count>(sample != 0 ? 1 : 0); });
}
template <typename Count>
constexpr auto foregroundInBand = kernel<foregroundInBandBody<Count>>;

using ByteMorphology = void (*)(std::uint8_t *, const BoxShape &, const Scratch8 &, std::uint8_t);

std::int32_t morphBytes(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY,
                        ByteMorphology morph, int threshold) {
  if (!isImage(mask, height, width) || sizeX * sizeY > 255) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const Scratch8 scratch(shape, true);
  if (!scratch.allocated()) {
    return KELM_IMAGE_NO_MEMORY;
  }
  morph(mask, shape, scratch, static_cast<std::uint8_t>(threshold));
  return KELM_IMAGE_OK;
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
  if (!isImage(mask, height, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const Scratch16 scratch(shape, true);
  if (!scratch.allocated()) {
    return KELM_IMAGE_NO_MEMORY;
  }
  samplesInBand(mask, shape, scratch, band);
  return KELM_IMAGE_OK;
}

template <typename Count>
std::int32_t morphForeground(std::uint8_t *mask, const BoxShape &shape, const Band<Count> &band) {
  const BoxScratch<Count, std::uint8_t> scratch(shape, true);
  if (!scratch.allocated()) {
    return KELM_IMAGE_NO_MEMORY;
  }
  foregroundInBand<Count>(mask, shape, scratch, band);
  return KELM_IMAGE_OK;
}

std::int32_t morphForeground(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY,
                             const Band<std::uint16_t> &band) {
  if (!isImage(mask, height, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
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

std::int32_t dilateByCount(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  return morphForeground(mask, height, width, sizeX, sizeY, dilationBand(sizeX, sizeY, 255));
}

std::int32_t erodeByCount(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  return morphForeground(mask, height, width, sizeX, sizeY, erosionBand(sizeX, sizeY, 255));
}

}  // namespace kelm::image

using namespace kelm::image;

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
