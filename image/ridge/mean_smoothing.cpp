// SPDX-License-Identifier: Apache-2.0
// Mean smoothing.
#include "image/ridge/mean_smoothing.h"

#include <cstddef>
#include <cstring>

#include "image/support/arguments.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

// sum / 9 for every sum of nine samples: 7282 is 65536 / 9 rounded up.
constexpr std::uint8_t ninth(std::uint32_t sum) { return static_cast<std::uint8_t>(sum * 7282 >> 16); }

constexpr bool ninthIsExact() {
  for (std::uint32_t sum = 0; sum <= 9 * 255; ++sum) {
    if (ninth(sum) != sum / 9) {
      return false;
    }
  }
  return true;
}
static_assert(ninthIsExact());

// out[c] = in[c - 1] + in[c] + in[c + 1], with 0 in the place of samples outside the row.
KELM_INLINE void sumRowBody(std::uint16_t *__restrict out, const std::uint8_t *__restrict in, std::size_t width) {
  if (width == 1) {
    out[0] = in[0];
    return;
  }
  out[0] = static_cast<std::uint16_t>(in[0] + in[1]);
  for (std::size_t c = 1; c + 1 < width; ++c) {
    out[c] = static_cast<std::uint16_t>(in[c - 1] + in[c] + in[c + 1]);
  }
  out[width - 1] = static_cast<std::uint16_t>(in[width - 2] + in[width - 1]);
}
constexpr auto sumRow = kernel<sumRowBody>;

KELM_INLINE void meanRowBody(std::uint8_t *__restrict out, const std::uint16_t *__restrict above,
                             const std::uint16_t *__restrict here, const std::uint16_t *__restrict below,
                             std::size_t width) {
  for (std::size_t c = 0; c < width; ++c) {
    out[c] = ninth(static_cast<std::uint16_t>(above[c] + here[c] + below[c]));
  }
}
constexpr auto meanRow = kernel<meanRowBody>;

}  // namespace

std::int32_t meanSmooth(const std::uint8_t *source, std::uint8_t *destination, std::int32_t height,
                        std::int32_t width) {
  if (!isImage(source, height, width) || destination == nullptr) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  const Buffer<std::uint16_t> scratch = allocate<std::uint16_t>(4 * columns);
  if (!scratch) {
    return KELM_IMAGE_NO_MEMORY;
  }
  // Where the destination overlaps the source from behind, the rows are done from the last to the first, so that no
  // source row is overwritten before it is read; the filter is the same in both directions.
  const auto from = reinterpret_cast<std::uintptr_t>(source);
  const auto to = reinterpret_cast<std::uintptr_t>(destination);
  const bool backward = to > from && to - from < rows * columns;
  const auto rowAt = [&](std::size_t i) { return (backward ? rows - 1 - i : i) * columns; };
  std::uint16_t *const nothing = scratch.get();
  std::uint16_t *const sums = nothing + columns;
  const auto sumsAt = [&](std::size_t i) { return sums + i % 3 * columns; };
  std::memset(nothing, 0, columns * sizeof(nothing[0]));
  sumRow(sumsAt(0), source + rowAt(0), columns);
  for (std::size_t i = 0; i < rows; ++i) {
    if (i + 1 < rows) {
      sumRow(sumsAt(i + 1), source + rowAt(i + 1), columns);
    }
    meanRow(destination + rowAt(i), i > 0 ? sumsAt(i - 1) : nothing, sumsAt(i), i + 1 < rows ? sumsAt(i + 1) : nothing,
            columns);
  }
  return KELM_IMAGE_OK;
}

}  // namespace kelm::image

std::int32_t MeanSmooth(const std::uint8_t *source, std::uint8_t *destination, std::int16_t height,
                        std::int16_t width) {
  return kelm::image::meanSmooth(source, destination, height, width);
}
