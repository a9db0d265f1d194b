// SPDX-License-Identifier: Apache-2.0
// Box sums of single-precision images.
//
// Every sum is made of the additions of the plain running sum in their order. Along the rows that is one chain of
// dependent additions per row, so rows are walked side by side; down the columns, columns are.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/filters/box_rows.h"
#include "image/filters/local_sums.h"
#include "image/support/arguments.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::size_t kRowsTogether = 8;

// The lines of row sums kept at a time: a window's, the group of rows that is being made, and rounded up so that a
// group does not wrap around.
std::size_t rowSumSlots(const BoxShape &shape) { return roundUp(2 * shape.halfY + 1 + kRowsTogether, kRowsTogether); }

// Lines of so many bytes, or a multiple, all fall into one set of a first-level cache: the rows read and those written
// side by side would then drive each other out.
constexpr std::size_t kCacheSpan = 4096;

// How many samples further `scratch` lies half a span away from `in`.
std::size_t offsetAgainst(const float *in, const float *scratch) {
  const std::uintptr_t apart = reinterpret_cast<std::uintptr_t>(scratch) - reinterpret_cast<std::uintptr_t>(in);
  return (kCacheSpan / 2 - apart) % kCacheSpan / sizeof(float);
}

template <std::size_t kRows>
KELM_INLINE void rowSums(float *__restrict out, const float *__restrict in, std::size_t n, std::size_t half) {
  float sum[kRows];
  for (std::size_t r = 0; r < kRows; ++r) {
    sum[r] = in[r * n];
  }
  const std::size_t warm = std::min(half + 1, n);
  for (std::size_t i = 1; i < warm; ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      sum[r] += in[r * n + i];
    }
  }
  // Where the window is cut at both ends it holds the whole row and neither gains nor loses.
  const std::size_t lastEntering = n - warm;  // elements enter while i is below this
  std::size_t i = 0;
  for (; i < std::min(half, lastEntering); ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
      sum[r] += in[r * n + i + half + 1];
    }
  }
  for (; i < std::min(half, n); ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
    }
  }
  for (; i < lastEntering; ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
      sum[r] += in[r * n + i + half + 1];
      sum[r] -= in[r * n + i - half];
    }
  }
  for (; i < n; ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
      sum[r] -= in[r * n + i - half];
    }
  }
}

KELM_INLINE void columnSums(float *__restrict out, float *__restrict columns, const float *__restrict entering,
                            const float *__restrict leaving, std::size_t n) {
  if (entering != nullptr && leaving != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      const float sum = columns[x];
      out[x] = sum;
      columns[x] = sum + entering[x] - leaving[x];
    }
    return;
  }
  for (std::size_t x = 0; x < n; ++x) {
    out[x] = columns[x];
  }
  if (entering != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] += entering[x];
    }
  } else if (leaving != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] -= leaving[x];
    }
  }
}

// `columns` is a line of the image's width, `ring` min(rowSumSlots, height) such lines. Rows are read before they are
// overwritten, so `out` may be `in`.
KELM_INLINE void floatSumsBody(float *out, const float *in, const BoxShape &shape, float *columns, float *ring) {
  const std::size_t width = shape.width;
  const std::size_t slots = rowSumSlots(shape);
  std::size_t made = 0;
  const auto line = [&](std::size_t y) KELM_INLINE_LAMBDA {
    while (made <= y) {
      float *sums = ring + made % slots * width;
      if (made + kRowsTogether <= shape.height) {
        rowSums<kRowsTogether>(sums, in + made * width, width, shape.halfX);
        made += kRowsTogether;
      } else {
        rowSums<1>(sums, in + made * width, width, shape.halfX);
        ++made;
      }
    }
    return ring + y % slots * width;
  };
  std::memcpy(columns, line(0), width * sizeof(float));
  for (std::size_t y = 1; y <= shape.halfY && y < shape.height; ++y) {
    const float *entering = line(y);
    for (std::size_t x = 0; x < width; ++x) {
      columns[x] += entering[x];
    }
  }
  for (std::size_t y = 0; y < shape.height; ++y) {
    const std::size_t next = y + shape.halfY + 1;
    const float *entering = next < shape.height ? line(next) : nullptr;
    const float *leaving = y >= shape.halfY ? ring + (y - shape.halfY) % slots * width : nullptr;
    columnSums(out + y * width, columns, entering, leaving, width);
  }
}
constexpr auto floatSums = kernel<floatSumsBody>;

}  // namespace

std::int32_t imageLocalSum(float *out, const float *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  if (!isImage(out, height, width) || in == nullptr) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const std::size_t needed = (1 + std::min(rowSumSlots(shape), shape.height)) * shape.width;
  const Buffer<float> lines = allocate<float>(needed + kCacheSpan / sizeof(float));
  if (lines == nullptr) {
    return KELM_IMAGE_NO_MEMORY;
  }
  float *columns = lines.get() + offsetAgainst(in, lines.get() + shape.width);
  floatSums(out, in, shape, columns, columns + shape.width);
  return KELM_IMAGE_OK;
}

}  // namespace kelm::image

int32_t fvs_ImageLocalSumFloat2Float(float *out, const float *in, int16_t height, int16_t width, uint8_t sizeX,
                                     uint8_t sizeY) {
  return kelm::image::imageLocalSum(out, in, height, width, sizeX, sizeY);
}
