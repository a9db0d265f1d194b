// SPDX-License-Identifier: Apache-2.0
// Box means.
//
// The quotient by the fixed area a comes from a multiplication by a reciprocal that is not below 1 / a, so that exact
// multiples of a do not fall short; everything else is at least 1 / a below the next integer. With e the error of
// reciprocal and product together, n * e / a must stay below 1 / a:
//  - 8-bit mean: single precision, n < 2^17 is exact, e < 2^-21;
//  - 32-bit mean: double precision, |n| <= 2^31 is exact, e < 2^-50.
#include <cmath>
#include <cstdint>

#include "image/filters/box_rows.h"
#include "image/support/arguments.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

KELM_INLINE void byteMeansBody(std::uint8_t *out, const std::uint8_t *in, const BoxShape &shape,
                               const BoxScratch<std::uint16_t, std::uint8_t> &scratch, std::int32_t area) {
  const std::int32_t rounding = (area + 1) >> 1;
  const float reciprocal = std::nextafter(1.0F / static_cast<float>(area), 2.0F);
  boxRows(
      out, in, shape, scratch, [](std::uint8_t sample) KELM_INLINE_LAMBDA { return std::uint16_t{sample}; },
      [=](std::uint16_t sum) KELM_INLINE_LAMBDA {
        return static_cast<std::uint8_t>(static_cast<std::int32_t>(static_cast<float>(sum + rounding) * reciprocal));
      });
}
constexpr auto byteMeans = kernel<byteMeansBody>;

KELM_INLINE void intMeansBody(std::uint32_t *out, const std::uint32_t *in, const BoxShape &shape,
                              const BoxScratch<std::uint32_t, std::uint32_t> &scratch, std::int32_t area) {
  const std::uint32_t rounding = static_cast<std::uint32_t>(area + 1) >> 1;
  const double reciprocal = std::nextafter(1.0 / area, 2.0);
  boxRows(
      out, in, shape, scratch, [](std::uint32_t sample) KELM_INLINE_LAMBDA { return sample; },
      [=](std::uint32_t sum) KELM_INLINE_LAMBDA {
        const double n = static_cast<std::int32_t>(sum + rounding);
        return static_cast<std::uint32_t>(static_cast<std::int32_t>(n * reciprocal));
      });
}
constexpr auto intMeans = kernel<intMeansBody>;

template <typename Sum, typename Sample>
std::int32_t imageMean(Sample *out, const Sample *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY,
                       void (*means)(Sample *, const Sample *, const BoxShape &, const BoxScratch<Sum, Sample> &,
                                     std::int32_t)) {
  if (!isImage(out, height, width) || in == nullptr || sizeX == 0 || sizeY == 0) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const BoxScratch<Sum, Sample> scratch(shape, out == in);
  if (!scratch.allocated()) {
    return KELM_IMAGE_NO_MEMORY;
  }
  means(out, in, shape, scratch, sizeX * sizeY);
  return KELM_IMAGE_OK;
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

int32_t fvs_ImageMeanChar2Char(uint8_t *out, const uint8_t *in, int16_t height, int16_t width, uint8_t sizeX,
                               uint8_t sizeY) {
  return imageMean(out, in, height, width, sizeX, sizeY, byteMeans);
}

int32_t fvs_ImageMeanInt2Int(int32_t *out, const int32_t *in, int16_t height, int16_t width, uint8_t sizeX,
                             uint8_t sizeY) {
  return imageMean(reinterpret_cast<std::uint32_t *>(out), reinterpret_cast<const std::uint32_t *>(in), height, width,
                   sizeX, sizeY, intMeans);
}
