// SPDX-License-Identifier: Apache-2.0
// Enlarging by two.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

KELM_INLINE void doubleRowBody(std::uint8_t *__restrict out, const std::uint8_t *__restrict in, std::size_t width) {
  for (std::size_t x = 0; x < width / 2; ++x) {
    out[2 * x] = in[x];
    out[2 * x + 1] = in[x];
  }
  if (width % 2 != 0) {
    out[width - 1] = in[width / 2];
  }
}
constexpr auto doubleRow = kernel<doubleRowBody>;

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

uint8_t *ImageEnlarge(const uint8_t *source, uint16_t sourceHeight, uint16_t sourceWidth, uint16_t outHeight,
                      uint16_t outWidth) {
  const std::size_t height = outHeight;
  const std::size_t width = outWidth;
  const bool empty = height == 0 || width == 0;
  const bool tooLow = sourceHeight != 0 && (height + 1) / 2 > sourceHeight;
  if (source == nullptr || (!empty && (tooLow || (width + 1) / 2 > sourceWidth))) {
    return nullptr;
  }
  Buffer<std::uint8_t> out = allocate<std::uint8_t>(height * width);
  if (out == nullptr || empty) {
    return out.release();
  }
  for (std::size_t y = 0; y < height; ++y) {
    std::uint8_t *row = out.get() + y * width;
    if (y % 2 == 0) {
      doubleRow(row, source + y / 2 * sourceWidth, width);
    } else {
      std::memcpy(row, row - width, width);
    }
  }
  return out.release();
}
