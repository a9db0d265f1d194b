// SPDX-License-Identifier: Apache-2.0
#include "image/ridge/histogram_shape.h"

namespace kelm::image {
namespace {

void append(Positions *positions, int position) {
  positions->at[positions->count++] = static_cast<std::int16_t>(position);
}

// The index after the flat stretch that begins at `start`, where the height differs, or 255.
int afterFlat(const std::uint32_t *heights, int start) {
  int j = start + 1;
  while (j < kShapeLevels - 1 && heights[j] == heights[j - 1]) {
    ++j;
  }
  return j;
}

}  // namespace

void scanExtrema(Extrema *extrema, const std::uint32_t *heights, int start, int end) {
  extrema->valleys.count = 0;
  extrema->peaks.count = 0;
  const auto h = [heights](int i) { return heightAt(heights, i); };
  for (int i = start; i <= end; ++i) {
    if (h(i) < h(i - 1) && h(i) < h(i + 1)) {
      append(&extrema->valleys, i);
    } else if (h(i) < h(i - 1) && h(i) == h(i + 1)) {
      const int j = afterFlat(heights, i);
      if (h(j) > h(j - 1)) {
        append(&extrema->valleys, (i + j) >> 1);
      }
      i = j - 1;
    }
    if (h(i) > h(i - 1) && h(i) > h(i + 1)) {
      append(&extrema->peaks, i);
    } else if (h(i) > h(i - 1) && h(i) == h(i + 1)) {
      const int j = afterFlat(heights, i);
      if (h(j) < h(j - 1)) {
        append(&extrema->peaks, (i + j) >> 1);
      }
      i = j - 1;
    }
  }
}

}  // namespace kelm::image
