// SPDX-License-Identifier: Apache-2.0
// Region growing, its stack, and the removal of small areas.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "image/filters/match.h"
#include "image/support/memory.h"
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

// What a fill works on. Runs of a row are half-open: [start, end).
struct Fill {
  std::uint8_t *image;
  std::size_t height;
  std::size_t width;
  GreyRange range;
  std::uint8_t label;
};

KELM_INLINE std::uint32_t countMatchesBody(const std::uint8_t *samples, std::size_t size, GreyRange range) {
  const Matcher matcher{samples, size, range};
  int count = 0;
  for (std::size_t at = 0; at < size; at += 64) {
    count += std::popcount(matchFrom(matcher, at));
  }
  return static_cast<std::uint32_t>(count);
}
KELM_KERNEL(std::uint32_t, countMatches, (const std::uint8_t *samples, std::size_t size, GreyRange range),
            (samples, size, range), countMatchesBody)

KELM_INLINE std::size_t runEnd(const Matcher &row, std::size_t column) {
  while (column < row.size) {
    const std::uint64_t other = ~matchFrom(row, column);
    if (other != 0) {
      return std::min(row.size, column + static_cast<std::size_t>(std::countr_zero(other)));
    }
    column += 64;
  }
  return row.size;
}

KELM_INLINE std::size_t runStart(const Matcher &row, std::size_t column) {
  while (column > 0) {
    const std::uint64_t other = ~matchBefore(row, column);
    if (other != 0) {
      return column - std::min(column, static_cast<std::size_t>(std::countl_zero(other)));
    }
    column -= std::min<std::size_t>(column, 64);
  }
  return 0;
}

// Pushes one position of every run of the row that meets the columns [start, end).
KELM_INLINE std::uint32_t *pushRuns(std::uint32_t *top, const Fill &fill, std::size_t row, std::size_t start,
                                    std::size_t end) {
  const std::size_t base = row * fill.width;
  const Matcher matcher{fill.image, fill.height * fill.width, fill.range};
  std::uint64_t before = 0;
  for (std::size_t column = start; column < end; column += 64) {
    const std::uint64_t bits = matchFrom(matcher, base + column, end - column);
    for (std::uint64_t starts = bits & ~(bits << 1 | before); starts != 0; starts &= starts - 1) {
      const std::size_t found = column + static_cast<std::size_t>(std::countr_zero(starts));
      *top++ = static_cast<std::uint32_t>(row << 16 | found);
    }
    before = bits >> 63;
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
    std::uint8_t *const line = fill.image + row * fill.width;
    if (!inRange(line[column], fill.range)) {
      continue;
    }
    const Matcher matcher{line, fill.width, fill.range};
    const std::size_t end = runEnd(matcher, column + 1);
    const std::size_t start = runStart(matcher, column);
    std::memset(line + start, fill.label, end - start);
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
KELM_KERNEL(void, grow,
            (const Fill &fill, std::size_t seedRow, std::size_t seedColumn, std::uint32_t *stack, Region *region),
            (fill, seedRow, seedColumn, stack, region), growBody)

// A run along a row. The runs of one area form a tree: `link` is the index of an earlier run of the area, or, at the
// root, minus the area so far.
struct Run {
  std::uint16_t start;
  std::uint16_t end;
  std::int32_t link;
};

KELM_INLINE std::size_t countRunsBody(const Matcher &matcher, std::size_t height, std::size_t width) {
  std::size_t count = 0;
  for (std::size_t row = 0; row < height; ++row) {
    std::uint64_t before = 0;
    for (std::size_t column = 0; column < width; column += 64) {
      const std::uint64_t bits = matchFrom(matcher, row * width + column, width - column);
      count += static_cast<std::size_t>(std::popcount(bits & ~(bits << 1 | before)));
      before = bits >> 63;
    }
  }
  return count;
}
KELM_KERNEL(std::size_t, countRuns, (const Matcher &matcher, std::size_t height, std::size_t width),
            (matcher, height, width), countRunsBody)

// Writes the runs of a row, each a root of its own, and returns one past the last.
KELM_INLINE Run *findRunsBody(Run *out, const Matcher &matcher, std::size_t base, std::size_t width) {
  std::size_t start = 0;
  std::uint64_t before = 0;
  const auto close = [&](std::size_t end) __attribute__((always_inline)) {
    *out++ = {static_cast<std::uint16_t>(start), static_cast<std::uint16_t>(end),
              static_cast<std::int32_t>(start) - static_cast<std::int32_t>(end)};
  };
  for (std::size_t column = 0; column < width; column += 64) {
    const std::uint64_t bits = matchFrom(matcher, base + column, width - column);
    std::uint64_t inside = before;
    for (std::uint64_t edges = bits ^ (bits << 1 | before); edges != 0; edges &= edges - 1) {
      const std::size_t edge = column + static_cast<std::size_t>(std::countr_zero(edges));
      if (inside != 0) {
        close(edge);
      } else {
        start = edge;
      }
      inside ^= 1;
    }
    before = bits >> 63;
  }
  if (before != 0) {
    close(width);
  }
  return out;
}
KELM_KERNEL(Run *, findRuns, (Run * out, const Matcher &matcher, std::size_t base, std::size_t width),
            (out, matcher, base, width), findRunsBody)

std::int32_t rootOf(Run *runs, std::int32_t run) {
  while (runs[run].link >= 0) {
    const std::int32_t parent = runs[run].link;
    if (runs[parent].link >= 0) {
      runs[run].link = runs[parent].link;
    }
    run = parent;
  }
  return run;
}

void join(Run *runs, std::int32_t a, std::int32_t b) {
  a = rootOf(runs, a);
  b = rootOf(runs, b);
  if (a != b) {
    const std::int32_t first = std::min(a, b);
    const std::int32_t second = std::max(a, b);
    runs[first].link += runs[second].link;
    runs[second].link = first;
  }
}

// Joins the runs [middle, end) of a row with the runs [begin, middle) of the row above that they touch.
void joinRows(Run *runs, std::int32_t begin, std::int32_t middle, std::int32_t end) {
  std::int32_t above = begin;
  for (std::int32_t run = middle; run < end; ++run) {
    while (above < middle && runs[above].end <= runs[run].start) {
      ++above;
    }
    for (std::int32_t other = above; other < middle && runs[other].start < runs[run].end; ++other) {
      join(runs, other, run);
    }
  }
}

// Replaces the runs of a row that belong to small areas. All earlier rows have been through it: their links lead
// straight to the root.
void replaceRuns(std::uint8_t *line, Run *runs, std::int32_t begin, std::int32_t end, std::uint8_t replacement,
                 std::uint32_t largest) {
  for (std::int32_t i = begin; i < end; ++i) {
    Run &run = runs[i];
    std::int32_t root = i;
    if (run.link >= 0) {
      root = runs[run.link].link < 0 ? run.link : runs[run.link].link;
      run.link = root;
    }
    if (static_cast<std::uint32_t>(-runs[root].link) <= largest) {
      std::memset(line + run.start, replacement, static_cast<std::size_t>(run.end - run.start));
    }
  }
}

bool positive(std::int32_t height, std::int32_t width) { return height > 0 && width > 0; }

// Fills from the seed when it matches; when it does not, from its left neighbour when that one does.
Region growFrom(const Fill &fill, std::size_t seedRow, std::size_t seedColumn) {
  Region region{0, static_cast<std::int32_t>(fill.width), static_cast<std::int32_t>(fill.height), 0, 0};
  const std::uint32_t matches = countMatches(fill.image, fill.height * fill.width, fill.range);
  if (matches == 0) {
    return region;
  }
  const Block<std::uint32_t> stack = allocate<std::uint32_t>(matches);
  if (!stack) {
    return region;
  }
  const std::uint8_t *line = fill.image + seedRow * fill.width;
  if (seedColumn < fill.width && inRange(line[seedColumn], fill.range)) {
    grow(fill, seedRow, seedColumn, stack.get(), &region);
  } else if (seedColumn > 0 && inRange(line[seedColumn - 1], fill.range)) {
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

void zooInitList(ZooList *list, std::int32_t capacity) {
  if (list == nullptr) {
    return;
  }
  *list = {nullptr, 0, capacity};
  if (capacity >= 1) {
    list->items = kelm::image::allocateZeroed<std::uint32_t>(static_cast<std::size_t>(capacity)).release();
    list->capacity = list->items == nullptr ? 0 : capacity;
  }
}

std::int32_t zooPush(ZooList *list, std::uint32_t entry) {
  if (list == nullptr || list->items == nullptr || list->count < 0 || list->count >= list->capacity) {
    return 0;
  }
  list->items[list->count++] = entry;
  return 1;
}

std::int32_t zooPop(ZooList *list, std::uint32_t *entry) {
  if (list == nullptr || entry == nullptr || list->items == nullptr || list->count < 1 ||
      list->count > list->capacity) {
    return 0;
  }
  *entry = list->items[--list->count];
  return 1;
}

std::int32_t zooIsListEmpty(const ZooList *list) { return list == nullptr || list->count < 1 ? 1 : 0; }

void zooClearup(ZooList *list) {
  if (list != nullptr && list->capacity >= 1) {
    std::free(list->items);
    list->items = nullptr;
  }
}

void RegionGrow(std::uint8_t *image, std::int16_t height, std::int16_t width, std::int16_t seedRow,
                std::int16_t seedColumn, std::uint32_t *area, std::int16_t *left, std::int16_t *top,
                std::int16_t *right, std::int16_t *bottom, std::uint8_t seedValue, std::uint8_t label,
                std::uint8_t tolerance) {
  using namespace kelm::image;
  if (image == nullptr || !positive(height, width)) {
    return;
  }
  Region region{0, width, height, 0, 0};
  // A column of `width` is the empty run at the end of the row, whose left neighbour is the last pixel.
  const bool inside = seedRow >= 0 && seedRow < height && seedColumn >= 0 && seedColumn <= width;
  const bool ends = std::abs(label - seedValue) >= tolerance;
  if (inside && ends && tolerance > 0) {
    const int low = std::max(seedValue - tolerance + 1, 0);
    const int high = std::min(seedValue + tolerance - 1, 255);
    const GreyRange range{static_cast<std::uint8_t>(low), static_cast<std::uint8_t>(high - low)};
    region = growFrom({image, static_cast<std::size_t>(height), static_cast<std::size_t>(width), range, label},
                      static_cast<std::size_t>(seedRow), static_cast<std::size_t>(seedColumn));
  }
  store(area, region.area);
  store(left, region.left);
  store(top, region.top);
  store(right, region.right);
  store(bottom, region.bottom);
}

std::int32_t RemoveSmallArea(std::uint8_t *image, std::int16_t height, std::int16_t width, std::uint8_t value,
                             std::uint8_t replacement, std::int16_t largest) {
  using namespace kelm::image;
  if (image == nullptr || value == replacement || !positive(height, width)) {
    return 2;
  }
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  const Matcher matcher{image, rows * columns, {value, 0}};
  const Block<Run> block = allocate<Run>(countRuns(matcher, rows, columns));
  const Block<std::int32_t> firsts = allocate<std::int32_t>(rows + 1);
  if (!block || !firsts) {
    return 1;
  }
  Run *const runs = block.get();
  std::int32_t count = 0;
  std::int32_t above = 0;
  for (std::size_t row = 0; row < rows; ++row) {
    firsts[row] = count;
    const auto end = static_cast<std::int32_t>(findRuns(runs + count, matcher, row * columns, columns) - runs);
    joinRows(runs, above, count, end);
    above = count;
    count = end;
  }
  firsts[rows] = count;
  for (std::size_t row = 0; row < rows; ++row) {
    replaceRuns(image + row * columns, runs, firsts[row], firsts[row + 1], replacement,
                static_cast<std::uint32_t>(std::int32_t{largest}));
  }
  return 0;
}
