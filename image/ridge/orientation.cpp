// SPDX-License-Identifier: Apache-2.0
// Ridge directions from grey-level gradients: the doubled angle of the gradient's products, averaged over neighbouring
// blocks as a vector (M. Kass and A. Witkin, "Analyzing oriented patterns", 1987).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "image/filters/local_sums.h"
#include "image/ridge/gradient_products.h"
#include "image/support/angles.h"
#include "image/support/arguments.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr int kBlocksTogether = 64;

struct Grid {
  int rows, cols;
  std::size_t count() const { return sampleCount(rows, cols); }
};

struct Products {
  Buffer<std::int32_t> products;
  Buffer<std::int32_t> differences;
};

// Everything that a call allocates for its caller, owned until the call succeeds.
struct Fields {
  Products sums;
  Buffer<std::int16_t> direction8;
  Buffer<std::int16_t> orientGrad;
  Buffer<std::int16_t> direction16;
};

// Averages doubled angles (radians) as vectors over a box and writes directions in degrees.
std::int32_t smoothDirection(const float *angles, std::int16_t *directions, std::uint8_t window, const Grid &grid) {
  const std::size_t n = grid.count();
  const Buffer<float> cosines = allocate<float>(n);
  const Buffer<float> sines = allocate<float>(n);
  if (!cosines || !sines) {
    return KELM_IMAGE_NO_MEMORY;
  }
  cosinesAndSines(cosines.get(), sines.get(), angles, n);
  if (imageLocalSum(cosines.get(), cosines.get(), grid.rows, grid.cols, window, window) != 0 ||
      imageLocalSum(sines.get(), sines.get(), grid.rows, grid.cols, window, window) != 0) {
    return KELM_IMAGE_NO_MEMORY;
  }
  halfPointAngles(directions, sines.get(), cosines.get(), n);
  return KELM_IMAGE_OK;
}

// The doubled angle at the centre of every block of `step` samples, into rows of `stride` angles.
void blockAngles(float *angles, std::size_t stride, const Products &sums, const Grid &image, int step) {
  std::int32_t products[kBlocksTogether];
  std::int32_t differences[kBlocksTogether];
  const int cols = image.cols / step;
  for (int b = 0; b < image.rows / step; ++b) {
    const std::size_t row = static_cast<std::size_t>(b * step + step / 2) * static_cast<std::size_t>(image.cols);
    for (int first = 0; first < cols; first += kBlocksTogether) {
      const int count = std::min(cols - first, kBlocksTogether);
      for (int k = 0; k < count; ++k) {
        const std::size_t centre = row + static_cast<std::size_t>((first + k) * step + step / 2);
        products[k] = sums.products[centre];
        differences[k] = sums.differences[centre];
      }
      pointAngles(angles + static_cast<std::size_t>(b) * stride + static_cast<std::size_t>(first), products,
                  differences, static_cast<std::size_t>(count));
    }
  }
}

std::int32_t makeProducts(Products *sums, const std::uint8_t *image, const Grid &size, std::uint8_t window) {
  sums->products = allocate<std::int32_t>(size.count());
  sums->differences = allocate<std::int32_t>(size.count());
  if (!sums->products || !sums->differences) {
    return KELM_IMAGE_NO_MEMORY;
  }
  std::int32_t *const products = sums->products.get();
  std::int32_t *const differences = sums->differences.get();
  gradientProducts(products, differences, image, static_cast<std::size_t>(size.rows),
                   static_cast<std::size_t>(size.cols));
  const bool summed = imageLocalSum(products, products, size.rows, size.cols, window, window) == 0 &&
                      imageLocalSum(differences, differences, size.rows, size.cols, window, window) == 0;
  return summed ? KELM_IMAGE_OK : KELM_IMAGE_NO_MEMORY;
}

KELM_INLINE std::int32_t angleDifference(std::int16_t a, std::int16_t b) {
  const auto d = static_cast<std::int16_t>(static_cast<std::uint16_t>(a) - static_cast<std::uint16_t>(b));
  const std::int32_t within = d <= -90 ? d + 180 : d > 90 ? 180 - d : d;
  return within < 0 ? -within : within;
}

// Of a row of blocks, all but the last.
KELM_INLINE void directionChangesBody(std::uint16_t *__restrict changes, const std::int16_t *__restrict directions,
                                      const std::int16_t *__restrict below, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    const std::int32_t a = angleDifference(directions[i], directions[i + 1]);
    const std::int32_t b = angleDifference(directions[i], below[i]);
    changes[i] =
        static_cast<std::uint16_t>(static_cast<std::int32_t>(__builtin_sqrt(static_cast<double>(a * a + b * b))));
  }
}
constexpr auto directionChanges = kernel<directionChangesBody>;

// Two passes of 3 x 3 sums weigh a 5 x 5 neighbourhood with 1, 2, 3, 2, 1 along each axis, 81 in all. Null without
// memory.
Buffer<std::int16_t> orientationChange(const std::int16_t *directions, const Grid &grid) {
  const std::size_t n = grid.count();
  Buffer<std::int16_t> samples = allocateZeroed<std::int16_t>(n);
  const Buffer<std::uint16_t> once = allocateZeroed<std::uint16_t>(n);
  if (!samples || !once) {
    return nullptr;
  }
  std::uint16_t *const changes = reinterpret_cast<std::uint16_t *>(samples.get());
  const std::size_t cols = static_cast<std::size_t>(grid.cols);
  for (std::size_t row = 0; row + cols < n && cols > 1; row += cols) {
    directionChanges(changes + row, directions + row, directions + row + cols, cols - 1);
  }
  if (n != 0 && (imageLocalSum(once.get(), changes, grid.rows, grid.cols, 3, 3) != 0 ||
                 imageLocalSum(changes, once.get(), grid.rows, grid.cols, 3, 3) != 0)) {
    return nullptr;
  }
  for (std::size_t i = 0; i < n; ++i) {
    samples[i] = static_cast<std::int16_t>((samples[i] + 41) / 81);
  }
  return samples;
}

std::int32_t makeFields8(Fields *fields, const Grid &image) {
  const Grid grid = {image.rows / 4, image.cols / 4};
  const std::size_t n = grid.count();
  const Buffer<float> angles = allocate<float>(n);
  const Buffer<std::int16_t> unsmoothed = allocate<std::int16_t>(n);
  fields->direction8 = allocate<std::int16_t>(n);
  if (!angles || !unsmoothed || !fields->direction8) {
    return KELM_IMAGE_NO_MEMORY;
  }
  blockAngles(angles.get(), static_cast<std::size_t>(grid.cols), fields->sums, image, 4);
  halfAngles(unsmoothed.get(), angles.get(), n);
  if (smoothDirection(angles.get(), fields->direction8.get(), 5, grid) != 0) {
    return KELM_IMAGE_NO_MEMORY;
  }
  fields->orientGrad = orientationChange(unsmoothed.get(), grid);
  return fields->orientGrad ? KELM_IMAGE_OK : KELM_IMAGE_NO_MEMORY;
}

// The image may end one column or row of blocks early; the last one of the grid repeats its neighbour then.
std::int32_t makeField16(Fields *fields, const Grid &image, const Grid &grid) {
  const std::size_t cols = static_cast<std::size_t>(grid.cols);
  const std::size_t n = grid.count();
  fields->direction16 = allocate<std::int16_t>(n);
  const Buffer<float> angles = allocateZeroed<float>(n);
  if (!fields->direction16 || !angles) {
    return KELM_IMAGE_NO_MEMORY;
  }
  blockAngles(angles.get(), cols, fields->sums, image, 8);
  if (grid.cols > image.cols / 8) {
    for (std::size_t end = cols; end <= n; end += cols) {
      angles[end - 1] = angles[end - 2];
    }
  }
  if (grid.rows > image.rows / 8) {
    for (std::size_t i = n - cols; i < n; ++i) {
      angles[i] = angles[i - cols];
    }
  }
  return smoothDirection(angles.get(), fields->direction16.get(), 3, grid);
}

// A repeated row or column needs a neighbour to repeat.
bool fits(int blocks, int samples) {
  const int whole = samples / 8;
  return samples <= INT16_MAX && whole >= 1 && (blocks == whole || blocks == whole + 1);
}

}  // namespace
}  // namespace kelm::image

int32_t FingerprintGetDirectionFloat(const uint8_t *image, uint16_t height, uint16_t width, uint16_t fullHeight,
                                     uint16_t fullWidth, uint8_t smoothWindow, uint8_t, int32_t **products,
                                     int32_t **differences, FingerprintBlockField *direction8,
                                     FingerprintBlockField *orientGrad, FingerprintBlockField *direction16) {
  using namespace kelm::image;
  const Grid size = {height, width};
  const Grid grid16 = {(fullHeight + 15) >> 4, (fullWidth + 15) >> 4};
  if (image == nullptr || products == nullptr || differences == nullptr || direction8 == nullptr ||
      orientGrad == nullptr || direction16 == nullptr || !fits(grid16.rows, height) || !fits(grid16.cols, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const std::uint16_t rows8 = height / 4;
  const std::uint16_t cols8 = width / 4;
  *direction8 = {8, rows8, cols8, direction8->data};
  *orientGrad = {8, rows8, cols8, nullptr};

  Fields fields = {};
  if (makeProducts(&fields.sums, image, size, smoothWindow) != 0 || makeFields8(&fields, size) != 0 ||
      makeField16(&fields, size, grid16) != 0) {
    return KELM_IMAGE_NO_MEMORY;
  }
  *products = fields.sums.products.release();
  *differences = fields.sums.differences.release();
  direction8->data = fields.direction8.release();
  orientGrad->data = fields.orientGrad.release();
  *direction16 = {16, static_cast<std::uint16_t>(grid16.rows), static_cast<std::uint16_t>(grid16.cols),
                  fields.direction16.release()};
  return KELM_IMAGE_OK;
}

int32_t FingerprintOrientGrad(FingerprintBlockField *output, const FingerprintBlockField *input) {
  using namespace kelm::image;
  if (output == nullptr || input == nullptr || input->data == nullptr) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  // The output may be the input, or share its samples, which are then released only after they have been read.
  const FingerprintBlockField source = *input;
  if (output->data != source.data) {
    std::free(output->data);
    output->data = nullptr;
  }
  Buffer<std::int16_t> changes = orientationChange(source.data, {source.rows, source.cols});
  if (!changes) {
    return KELM_IMAGE_NO_MEMORY;
  }
  std::free(output->data);
  *output = {source.blockSize, source.rows, source.cols, changes.release()};
  return KELM_IMAGE_OK;
}

int32_t AngleDiffAbs(int32_t a, int32_t b) {
  return kelm::image::angleDifference(static_cast<std::int16_t>(a), static_cast<std::int16_t>(b));
}
