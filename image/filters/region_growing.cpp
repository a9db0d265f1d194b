// SPDX-License-Identifier: Apache-2.0
// Region growing, on a copy of the image that keeps one bit for each pixel: whether it matches.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "image/filters/match.h"
#include "image/support/arguments.h"
#include "image/support/bits.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

struct Region {
  std::uint32_t area;
  std::int32_t left;
  std::int32_t top;
  std::int32_t right;
  std::int32_t bottom;

  void include(std::int32_t row, std::int32_t first, std::int32_t last) {
    left = std::min(left, first);
    top = std::min(top, row);
    right = std::max(right, last);
    bottom = std::max(bottom, row);
  }
};

// What a fill works on. Every row of bits begins with a word of its own; bits past its end are 0. Runs of a row are
// half-open: [start, end).
struct Fill {
  std::uint8_t *image;
  std::uint64_t *bits;
  std::size_t height;
  std::size_t width;
  std::size_t words;  // of a row
  std::uint8_t label;
};

// Sets the bits of the pixels that match and counts them.
KELM_INLINE std::uint32_t markMatchesBody(std::uint64_t *bits, const Matcher &matcher, std::size_t height,
                                          std::size_t width) {
  const Matcher local = matcher;  // which the stores cannot change
  int count = 0;
  for (std::size_t row = 0; row < height; ++row) {
    for (std::size_t column = 0; column < width; column += kWordBits) {
      const std::uint64_t word = matchFrom(local, row * width + column, width - column);
      *bits++ = word;
      count += std::popcount(word);
    }
  }
  return static_cast<std::uint32_t>(count);
}
constexpr auto markMatches = kernel<markMatchesBody>;

KELM_INLINE bool isSet(const std::uint64_t *bits, std::size_t column) {
  return (bits[column / kWordBits] >> column % kWordBits & 1) != 0;
}

// The end of the run that the column belongs to.
KELM_INLINE std::size_t runEnd(const std::uint64_t *bits, std::size_t words, std::size_t column) {
  std::size_t i = column / kWordBits;
  std::uint64_t others = ~bits[i] & ~std::uint64_t{0} << column % kWordBits;
  while (others == 0) {
    if (++i == words) {
      return words * kWordBits;
    }
    others = ~bits[i];
  }
  return i * kWordBits + static_cast<std::size_t>(std::countr_zero(others));
}

// Its start.
KELM_INLINE std::size_t runStart(const std::uint64_t *bits, std::size_t column) {
  std::size_t i = column / kWordBits;
  std::uint64_t others = ~bits[i] & ~(~std::uint64_t{0} << column % kWordBits);
  while (others == 0) {
    if (i-- == 0) {
      return 0;
    }
    others = ~bits[i];
  }
  return (i + 1) * kWordBits - static_cast<std::size_t>(std::countl_zero(others));
}

// Those bits of word i that lie in the columns [start, end), of which it holds some.
KELM_INLINE std::uint64_t columnsOf(std::size_t i, std::size_t start, std::size_t end) {
  const std::size_t first = i * kWordBits;
  const std::uint64_t from = start > first ? ~std::uint64_t{0} << (start - first) : ~std::uint64_t{0};
  const std::uint64_t to = end < first + kWordBits ? ~(~std::uint64_t{0} << (end - first)) : ~std::uint64_t{0};
  return from & to;
}

KELM_INLINE void labelRun(const Fill &fill, std::size_t row, std::size_t start, std::size_t end) {
  std::uint64_t *const bits = fill.bits + row * fill.words;
  for (std::size_t i = start / kWordBits; i * kWordBits < end; ++i) {
    bits[i] &= ~columnsOf(i, start, end);
  }
  std::memset(fill.image + row * fill.width + start, fill.label, end - start);
}

// Pushes one position of every run of the row that meets the columns [start, end).
KELM_INLINE std::uint32_t *pushRuns(std::uint32_t *top, const Fill &fill, std::size_t row, std::size_t start,
                                    std::size_t end) {
  const std::uint64_t *const bits = fill.bits + row * fill.words;
  std::uint64_t before = 0;
  for (std::size_t i = start / kWordBits; i * kWordBits < end; ++i) {
    const std::uint64_t word = bits[i] & columnsOf(i, start, end);
    forEachBit(runStarts(word, before), [&](std::size_t bit) KELM_INLINE_LAMBDA {
      *top++ = static_cast<std::uint32_t>(row << 16 | (i * kWordBits + bit));
    });
    before = word >> (kWordBits - 1);
  }
  return top;
}

// The stack never overflows. A run is pushed at most once for every run that touches it in a neighbouring row; such a
// pair of runs shares a column, so each pair has a pixel of its own in the lower of its two rows, and no pair has one
// in the region's first row. With the seed there are thus at most as many pushes as the region has pixels.
KELM_INLINE void growBody(const Fill &fill, std::size_t seedRow, std::size_t seedColumn, std::uint32_t *stack,
                          Region *region) {
  std::uint32_t *top = stack;
  *top++ = static_cast<std::uint32_t>(seedRow << 16 | seedColumn);
  while (top != stack) {
    --top;
    const std::size_t row = *top >> 16;
    const std::size_t column = *top & 0xFFFF;
    const std::uint64_t *const bits = fill.bits + row * fill.words;
    if (!isSet(bits, column)) {
      continue;
    }
    const std::size_t end = runEnd(bits, fill.words, column);
    const std::size_t start = runStart(bits, column);
    labelRun(fill, row, start, end);
    region->area += static_cast<std::uint32_t>(end - start);
    region->include(static_cast<std::int32_t>(row), static_cast<std::int32_t>(start),
                    static_cast<std::int32_t>(end) - 1);
    if (row + 1 < fill.height) {
      top = pushRuns(top, fill, row + 1, start, end);
    }
    if (row > 0) {
      top = pushRuns(top, fill, row - 1, start, end);
    }
  }
}
constexpr auto grow = kernel<growBody>;

// Fills from the seed when it matches; when it does not, from its left neighbour when that one does.
Region growFrom(Fill fill, GreyRange range, std::size_t seedRow, std::size_t seedColumn) {
  Region region{0, static_cast<std::int32_t>(fill.width), static_cast<std::int32_t>(fill.height), 0, 0};
  const Buffer<std::uint64_t> bits = allocate<std::uint64_t>(fill.height * fill.words);
  if (!bits) {
    return region;
  }
  fill.bits = bits.get();
  const Matcher matcher{fill.image, fill.height * fill.width, range};
  const std::uint32_t matches = markMatches(fill.bits, matcher, fill.height, fill.width);
  if (matches == 0) {
    return region;
  }
  const Buffer<std::uint32_t> stack = allocate<std::uint32_t>(matches);
  if (!stack) {
    return region;
  }
  const std::uint64_t *const row = fill.bits + seedRow * fill.words;
  if (seedColumn < fill.width && isSet(row, seedColumn)) {
    grow(fill, seedRow, seedColumn, stack.get(), &region);
  } else if (seedColumn > 0 && isSet(row, seedColumn - 1)) {
    grow(fill, seedRow, seedColumn - 1, stack.get(), &region);
  } else {
    // The empty run at the seed still counts in the box.
    const auto column = static_cast<std::int32_t>(seedColumn);
    region.include(static_cast<std::int32_t>(seedRow), column, column - 1);
  }
  return region;
}

template <typename T>
void store(T *where, auto value) {
  if (where != nullptr) {
    *where = static_cast<T>(value);
  }
}

}  // namespace
}  // namespace kelm::image

void RegionGrow(std::uint8_t *image, std::int16_t height, std::int16_t width, std::int16_t seedRow,
                std::int16_t seedColumn, std::uint32_t *area, std::int16_t *left, std::int16_t *top,
                std::int16_t *right, std::int16_t *bottom, std::uint8_t seedValue, std::uint8_t label,
                std::uint8_t tolerance) {
  using namespace kelm::image;
  if (!isImage(image, height, width)) {
    return;
  }
  Region region{0, width, height, 0, 0};
  // A column of `width` is the empty run at the end of the row, whose left neighbour is the last pixel.
  const bool inside = seedRow >= 0 && seedRow < height && seedColumn >= 0 && seedColumn <= width;
  const bool ends = std::abs(label - seedValue) >= tolerance;
  if (inside && ends && tolerance > 0) {
    const int low = std::max(seedValue - tolerance + 1, 0);
    const int high = std::min(seedValue + tolerance - 1, 255);
    const auto rows = static_cast<std::size_t>(height);
    const auto columns = static_cast<std::size_t>(width);
    region = growFrom({image, nullptr, rows, columns, (columns + kWordBits - 1) / kWordBits, label},
                      {static_cast<std::uint8_t>(low), static_cast<std::uint8_t>(high - low)},
                      static_cast<std::size_t>(seedRow), static_cast<std::size_t>(seedColumn));
  }
  store(area, region.area);
  store(left, region.left);
  store(top, region.top);
  store(right, region.right);
  store(bottom, region.bottom);
}
