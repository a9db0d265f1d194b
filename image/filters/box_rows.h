// SPDX-License-Identifier: Apache-2.0
// The engine of the box sums of integers: walks the rows of an image once, from top to bottom, and hands every sum to
// the caller's last step, so that means and thresholds need no image of sums.
//
// Integer sums wrap, so the order of the additions does not matter: one running sum per column is kept in a line with
// zeros on both sides, and each output row is the sliding sum along that line.
#ifndef KELMTROVA_IMAGE_FILTERS_BOX_ROWS_H
#define KELMTROVA_IMAGE_FILTERS_BOX_ROWS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "image/support/buffer.h"
#include "image/support/kernel.h"

namespace kelm::image {

struct BoxShape {
  std::size_t height;
  std::size_t width;
  std::size_t halfX;  // the window covers 2 * halfX + 1 columns
  std::size_t halfY;

  BoxShape(int h, int w, std::uint8_t sizeX, std::uint8_t sizeY)
      : height(static_cast<std::size_t>(h)), width(static_cast<std::size_t>(w)), halfX(sizeX >> 1), halfY(sizeY >> 1) {}
  std::size_t spanX() const { return 2 * halfX + 1; }
};

// Windows of up to this half-width are summed tap by tap; wider ones slide in steps of kStep samples.
constexpr std::size_t kMaxTapsHalf = 4;
constexpr std::size_t kStep = 16;

constexpr std::size_t roundUp(std::size_t n, std::size_t step) { return (n + step - 1) / step * step; }

// Scratch of one image call, in one block: three lines of sums, and in place the last halfY + 1 rows of the input,
// which are needed after they have been overwritten.
template <typename Sum, typename In>
struct BoxScratch {
  Buffer<Sum> memory;
  Sum *columns = nullptr;   // halfX zeros, the column sums, halfX zeros and more
  Sum *fours = nullptr;     // sums of 4 neighbours
  Sum *sixteens = nullptr;  // sums of 16 neighbours
  In *kept = nullptr;       // null unless in place

  BoxScratch(const BoxShape &shape, bool inPlace) {
    static_assert(alignof(Sum) >= alignof(In));
    const std::size_t line = roundUp(shape.width, kStep) + 2 * shape.halfX + kStep;
    const std::size_t lines = shape.halfX > kMaxTapsHalf ? 3 : 1;
    const std::size_t keptRows = inPlace ? std::min(shape.halfY + 1, shape.height) : 0;
    const std::size_t keptSums = (keptRows * shape.width * sizeof(In) + sizeof(Sum) - 1) / sizeof(Sum);
    memory = allocate<Sum>(lines * line + keptSums);
    if (memory != nullptr) {
      columns = memory.get();
      std::memset(columns, 0, line * sizeof(Sum));
      fours = lines == 3 ? columns + line : nullptr;
      sixteens = lines == 3 ? columns + 2 * line : nullptr;
      kept = inPlace ? reinterpret_cast<In *>(columns + lines * line) : nullptr;
    }
  }
  bool allocated() const { return memory != nullptr; }
};

// The last step makes the output from the sum alone, or from what it replaces and the sum; only then is the output
// read.
template <typename Out, typename Sum, typename Finish>
KELM_INLINE void put(Out *out, Sum sum, Finish finish) {
  if constexpr (std::is_invocable_v<Finish, Sum>) {
    *out = finish(sum);
  } else {
    *out = finish(*out, sum);
  }
}

template <typename Sum, typename Out, typename Finish, std::size_t... kTap>
KELM_INLINE void sumTaps(Out *__restrict out, const Sum *__restrict line, std::size_t n, Finish finish,
                         std::index_sequence<kTap...>) {
  for (std::size_t x = 0; x < n; ++x) {
    put(&out[x], static_cast<Sum>((line[x + kTap] + ...)), finish);
  }
}

// kStep neighbouring sums, in registers that every processor has.
template <typename Sum>
struct Run {
  typedef Sum Lanes __attribute__((vector_size(16)));
  static constexpr std::size_t kLanes = 16 / sizeof(Sum);
  static constexpr std::size_t kParts = kStep / kLanes;
  Lanes part[kParts];
};

template <typename Sum>
KELM_INLINE void addTo(Run<Sum> &run, const Sum *samples) {
  for (std::size_t k = 0; k < Run<Sum>::kParts; ++k) {
    typename Run<Sum>::Lanes lanes;
    std::memcpy(&lanes, samples + k * Run<Sum>::kLanes, sizeof(lanes));
    run.part[k] += lanes;
  }
}

template <typename Sum>
KELM_INLINE void subtractFrom(Run<Sum> &run, const Sum *samples) {
  for (std::size_t k = 0; k < Run<Sum>::kParts; ++k) {
    typename Run<Sum>::Lanes lanes;
    std::memcpy(&lanes, samples + k * Run<Sum>::kLanes, sizeof(lanes));
    run.part[k] -= lanes;
  }
}

template <typename Sum>
KELM_INLINE void store(Sum *sums, const Run<Sum> &run) {
  for (std::size_t k = 0; k < Run<Sum>::kParts; ++k) {
    std::memcpy(sums + k * Run<Sum>::kLanes, &run.part[k], sizeof(run.part[k]));
  }
}

// A sum of `span` samples moves on by 16 positions by adding the 16 samples that enter and subtracting the 16 that
// leave: 16 neighbouring sums at once, at a cost that does not depend on the window.
template <typename Sum, typename Out, typename Finish>
KELM_INLINE void sumRunning(Out *__restrict out, const Sum *__restrict line, Sum *__restrict fours,
                            Sum *__restrict sixteens, std::size_t n, std::size_t span, Finish finish) {
  const std::size_t padded = roundUp(n, kStep);
  const std::size_t reach = padded + span - 1;
  for (std::size_t x = 0; x + 3 < reach; ++x) {
    fours[x] = static_cast<Sum>(line[x] + line[x + 1] + line[x + 2] + line[x + 3]);
  }
  for (std::size_t x = 0; x + 15 < reach; ++x) {
    sixteens[x] = static_cast<Sum>(fours[x] + fours[x + 4] + fours[x + 8] + fours[x + 12]);
  }
  Run<Sum> run = {};
  std::size_t covered = 0;
  for (; covered + 16 <= span; covered += 16) {
    addTo(run, sixteens + covered);
  }
  for (; covered + 4 <= span; covered += 4) {
    addTo(run, fours + covered);
  }
  for (; covered < span; ++covered) {
    addTo(run, line + covered);
  }
  Sum *__restrict sums = fours;  // not needed any more
  store(sums, run);
  for (std::size_t x = kStep; x < padded; x += kStep) {
    addTo(run, sixteens + x - kStep + span);
    subtractFrom(run, sixteens + x - kStep);
    store(sums + x, run);
  }
  for (std::size_t x = 0; x < n; ++x) {
    put(&out[x], sums[x], finish);
  }
}

template <typename Sum, typename In, typename Out, typename Finish>
KELM_INLINE void sumAlongRow(Out *out, const BoxShape &shape, const BoxScratch<Sum, In> &scratch, Finish finish) {
  const Sum *line = scratch.columns;
  switch (shape.halfX) {
    case 0:
      return sumTaps(out, line, shape.width, finish, std::make_index_sequence<1>());
    case 1:
      return sumTaps(out, line, shape.width, finish, std::make_index_sequence<3>());
    case 2:
      return sumTaps(out, line, shape.width, finish, std::make_index_sequence<5>());
    case 3:
      return sumTaps(out, line, shape.width, finish, std::make_index_sequence<7>());
    case kMaxTapsHalf:
      return sumTaps(out, line, shape.width, finish, std::make_index_sequence<9>());
    default:
      return sumRunning(out, line, scratch.fours, scratch.sixteens, shape.width, shape.spanX(), finish);
  }
}

// Adds one row to the column sums and subtracts another; either may be null.
template <typename Sum, typename In, typename Read>
KELM_INLINE void moveColumns(Sum *__restrict columns, const In *__restrict entering, const In *__restrict leaving,
                             std::size_t n, Read read) {
  if (entering != nullptr && leaving != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] = static_cast<Sum>(columns[x] + read(entering[x]) - read(leaving[x]));
    }
  } else if (entering != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] = static_cast<Sum>(columns[x] + read(entering[x]));
    }
  } else if (leaving != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] = static_cast<Sum>(columns[x] - read(leaving[x]));
    }
  }
}

// out[x] = finish(S) or finish(out[x], S) for every sample, S being the sum over the window of read(in[...]). `scratch`
// is made for this shape, in place exactly when `out` and `in` are the same image.
template <typename Sum, typename In, typename Out, typename Read, typename Finish>
KELM_INLINE void boxRows(Out *out, const In *in, const BoxShape &shape, const BoxScratch<Sum, In> &scratch, Read read,
                         Finish finish) {
  const std::size_t width = shape.width;
  const std::size_t slots = shape.halfY + 1;
  Sum *columns = scratch.columns + shape.halfX;
  const In *none = nullptr;
  for (std::size_t y = 0; y <= shape.halfY && y < shape.height; ++y) {
    moveColumns(columns, in + y * width, none, width, read);
  }
  for (std::size_t y = 0; y < shape.height; ++y) {
    const bool leaves = y >= shape.halfY;
    const In *leaving = leaves ? in + (y - shape.halfY) * width : none;
    if (scratch.kept != nullptr) {
      std::memcpy(scratch.kept + y % slots * width, in + y * width, width * sizeof(In));
      leaving = leaves ? scratch.kept + (y - shape.halfY) % slots * width : none;
    }
    sumAlongRow(out + y * width, shape, scratch, finish);
    const std::size_t entering = y + shape.halfY + 1;
    moveColumns(columns, entering < shape.height ? in + entering * width : none, leaving, width, read);
  }
}

}  // namespace kelm::image

#endif
