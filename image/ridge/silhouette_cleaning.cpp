// SPDX-License-Identifier: Apache-2.0
// The canvas is never materialised: every step leaves one interval of rows in each of its columns.
//
// The filled pixels that a 9 x 9 window holds grow in number as long as the window is cut at row 0 and then fall from
// row to row, so the dilation leaves an interval. The erosion leaves the rows that the intervals of all nine columns
// share, shortened by four at either end, and nothing where its window is cut; the 3 x 3 erosion the same with three
// columns and one row. Together that is an intersection of eleven columns, shortened by five, which is nowhere near the
// border. The last dilation adds a row and spreads to the neighbouring columns; of that only the top matters.
#include "image/ridge/silhouette_cleaning.h"

#include <cstring>

#include "image/support/kernel.h"

namespace kelm::image {
namespace {

constexpr int kReach = 4;  // of a 9 x 9 window
constexpr std::uint8_t kWindow = 2 * kReach + 1;
constexpr std::uint8_t kFilled = 15;  // pixels that the dilation asks for
constexpr int kShortened = kReach + 1;
constexpr int kTogether = 2 * kShortened + 1;
constexpr int kHighestFoot = kShapeLevels - 1 - kReach;  // lowest row of the window around the highest row

// Column i of the canvas is element kShortened + i: windows may reach beyond it, where nothing is filled.
using Columns = std::uint8_t[kShapeLevels + 2 * kShortened];

// The filled pixels of a window of nine columns, `bars` the leftmost, and of the `rows` rows from `foot` on.
KELM_INLINE std::uint8_t filledIn(const std::uint8_t *bars, std::uint8_t foot, std::uint8_t rows) {
  std::uint8_t filled = 0;
  for (int k = 0; k < kWindow; ++k) {
    const std::uint8_t above = static_cast<std::uint8_t>((bars[k] > foot ? bars[k] : foot) - foot);
    filled = static_cast<std::uint8_t>(filled + (above < rows ? above : rows));
  }
  return filled;
}

// The lowest and the highest row of the dilation in every column. An empty one has 5, the count of cut windows that do
// not hold enough, and 0.
KELM_INLINE void dilate(std::uint8_t *__restrict lowest, std::uint8_t *__restrict highest,
                        const std::uint8_t *__restrict bars) {
  for (int i = 0; i < kShapeLevels; ++i) {
    const std::uint8_t *const window = bars + i - kReach;
    std::uint8_t low = 0;
    for (std::uint8_t row = 0; row <= kReach; ++row) {
      low = static_cast<std::uint8_t>(low + (filledIn(window, 0, row + kReach + 1) < kFilled ? 1 : 0));
    }
    lowest[i] = low;
    highest[i] = 0;
  }
  // Bisection for the highest foot of a whole window that holds enough.
  for (int bit = 128; bit > 0; bit >>= 1) {
    for (int i = 0; i < kShapeLevels; ++i) {
      const std::uint8_t foot = static_cast<std::uint8_t>(highest[i] + bit);
      const bool enough = filledIn(bars + i - kReach, foot, kWindow) >= kFilled;
      highest[i] = ((foot <= kHighestFoot) & enough) != 0 ? foot : highest[i];
    }
  }
  for (int i = 0; i < kShapeLevels; ++i) {
    highest[i] = lowest[i] <= kReach ? static_cast<std::uint8_t>(highest[i] + kReach) : std::uint8_t{0};
  }
}

KELM_INLINE void cleanBody(std::uint8_t *__restrict tops, const std::uint8_t *__restrict bars) {
  Columns padded = {};
  Columns lowest;
  Columns highest = {};
  Columns core = {};
  std::memcpy(padded + kShortened, bars, kShapeLevels);
  std::memset(lowest, kReach + 1, sizeof lowest);
  dilate(lowest + kShortened, highest + kShortened, padded + kShortened);
  for (int i = 0; i < kShapeLevels; ++i) {
    std::uint8_t low = 0;
    std::uint8_t high = 255;
    for (int k = 0; k < kTogether; ++k) {
      low = low > lowest[i + k] ? low : lowest[i + k];
      high = high < highest[i + k] ? high : highest[i + k];
    }
    // One row higher already, for the last dilation.
    const std::uint8_t top = static_cast<std::uint8_t>(high - kShortened + 1);
    core[kShortened + i] = high >= low + 2 * kShortened ? top : std::uint8_t{0};
  }
  for (int i = 0; i < kShapeLevels; ++i) {
    const std::uint8_t *const c = core + kShortened + i;
    const std::uint8_t beside = c[-1] > c[1] ? c[-1] : c[1];
    tops[i] = c[0] > beside ? c[0] : beside;
  }
}
}  // namespace

void cleanSilhouette(std::uint8_t (&tops)[kShapeLevels], const std::uint8_t (&bars)[kShapeLevels]) {
  kernel<cleanBody>(tops, bars);
}

}  // namespace kelm::image
