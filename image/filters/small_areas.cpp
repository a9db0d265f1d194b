// SPDX-License-Identifier: Apache-2.0
// Removal of small areas: the runs along the rows, joined to areas from row to row.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/filters/match.h"
#include "image/support/arguments.h"
#include "image/support/bits.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

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
    for (std::size_t column = 0; column < width; column += kWordBits) {
      const std::uint64_t bits = matchFrom(matcher, row * width + column, width - column);
      count += static_cast<std::size_t>(std::popcount(runStarts(bits, before)));
      before = bits >> (kWordBits - 1);
    }
  }
  return count;
}
constexpr auto countRuns = kernel<countRunsBody>;

// Writes the runs of a row, each a root of its own, and returns one past the last.
KELM_INLINE Run *findRunsBody(Run *out, const Matcher &matcher, std::size_t base, std::size_t width) {
  forEachRun(
      width, [&](std::size_t column) KELM_INLINE_LAMBDA { return matchFrom(matcher, base + column, width - column); },
      [&](std::size_t start, std::size_t end) KELM_INLINE_LAMBDA {
        *out++ = {static_cast<std::uint16_t>(start), static_cast<std::uint16_t>(end),
                  static_cast<std::int32_t>(start) - static_cast<std::int32_t>(end)};
      });
  return out;
}
constexpr auto findRuns = kernel<findRunsBody>;

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

}  // namespace
}  // namespace kelm::image

std::int32_t RemoveSmallArea(std::uint8_t *image, std::int16_t height, std::int16_t width, std::uint8_t value,
                             std::uint8_t replacement, std::int16_t largest) {
  using namespace kelm::image;
  if (!isImage(image, height, width) || value == replacement) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const auto rows = static_cast<std::size_t>(height);
  const auto columns = static_cast<std::size_t>(width);
  const Matcher matcher{image, rows * columns, {value, 0}};
  const Buffer<Run> found = allocate<Run>(countRuns(matcher, rows, columns));
  const Buffer<std::int32_t> firsts = allocate<std::int32_t>(rows + 1);
  if (!found || !firsts) {
    return KELM_IMAGE_NO_MEMORY;
  }
  Run *const runs = found.get();
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
  return KELM_IMAGE_OK;
}
