// SPDX-License-Identifier: Apache-2.0
// Box sums of images of integers.
#include "image/filters/local_sums.h"

#include <cstddef>
#include <cstdint>

#include "image/filters/box_rows.h"
#include "image/filters/vector_sums.h"
#include "image/support/arguments.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

template <typename Sum, typename In>
KELM_INLINE void sumsBody(Sum *out, const In *in, const BoxShape &shape, const BoxScratch<Sum, In> &scratch) {
  boxRows(
      out, in, shape, scratch, [](In sample) KELM_INLINE_LAMBDA { return static_cast<Sum>(sample); }, Unchanged());
}
template <typename Sum, typename In>
constexpr auto sums = kernel<sumsBody<Sum, In>>;

template <typename Sum, typename In>
std::int32_t integerSum(Sum *out, const In *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  if (!isImage(out, height, width) || in == nullptr) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const bool inPlace = static_cast<const void *>(out) == static_cast<const void *>(in);
  const BoxScratch<Sum, In> scratch(shape, inPlace);
  if (!scratch.allocated()) {
    return KELM_IMAGE_NO_MEMORY;
  }
  sums<Sum, In>(out, in, shape, scratch);
  return KELM_IMAGE_OK;
}

}  // namespace

std::int32_t imageLocalSum(std::uint8_t *out, const std::uint8_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  return integerSum(out, in, height, width, sizeX, sizeY);
}

std::int32_t imageLocalSum(std::uint16_t *out, const std::uint8_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  const std::int32_t result = integerSum(out, in, height, width, sizeX, sizeY);
  if (result == KELM_IMAGE_NO_MEMORY) {
    // Part of the interface: when memory is short, the sums along the rows are delivered all the same.
    for (std::size_t y = 0; y < static_cast<std::size_t>(height); ++y) {
      const std::size_t row = y * static_cast<std::size_t>(width);
      vectorLocalSum(out + row, in + row, 1, 1, width, sizeX);
    }
  }
  return result;
}

std::int32_t imageLocalSum(std::uint16_t *out, const std::uint16_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  return integerSum(out, in, height, width, sizeX, sizeY);
}

std::int32_t imageLocalSum(std::int32_t *out, const std::int32_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  return integerSum(reinterpret_cast<std::uint32_t *>(out), reinterpret_cast<const std::uint32_t *>(in), height, width,
                    sizeX, sizeY);
}

}  // namespace kelm::image

using kelm::image::imageLocalSum;

int32_t fvs_ImageLocalSumChar2Char(uint8_t *out, const uint8_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                   uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumChar2Uint16(uint16_t *out, const uint8_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                     uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumUint162Uint16(uint16_t *out, const uint16_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                       uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumInt2Int(int32_t *out, const int32_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                 uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}
