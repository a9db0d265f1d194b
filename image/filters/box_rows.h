// SPDX-License-Identifier: Apache-2.0
// The engine of the box sums of integers: walks the rows of an image once, from top to bottom, and hands every sum to
// the caller's last step, so that means and thresholds need no image of sums.
//
// Integer sums wrap, so the order of the additions does not matter: one running sum per column is kept, and each output
// row is the sliding sum along a line of these with zeros on both sides. A few output rows are made at a time, each
// from a line of its own: reading a line at odd places just after it was written would wait for the writes to reach the
// cache, which took a third to a half of the time.
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

// Output rows that are made at a time; fewer of wide sums, so that their lines stay in the first cache.
template <typename Sum>
constexpr std::size_t kTogether = sizeof(Sum) == 4 ? 2 : 4;

// Scratch of one image call, in one block: the lines of sums, a row of zeros, and in place the last halfY + 1 rows of
// the input, which are needed after they have been overwritten.
template <typename Sum, typename In>
struct BoxScratch {
  static constexpr std::size_t kAlign = kCacheLine / sizeof(Sum);
  AlignedBuffer<Sum> memory;
  std::size_t lead;         // of a line, before the first column
  std::size_t stride;       // of the lines
  Sum *lines = nullptr;     // column sums with halfX zeros on both sides and more; the last is where the next go on
  Sum *fours = nullptr;     // of the lines, sums of 4 neighbours, or of 3 for a window of 9
  Sum *sixteens = nullptr;  // sums of 16 neighbours
  In *zeros = nullptr;
  In *kept = nullptr;  // null unless in place

  BoxScratch(const BoxShape &shape, bool inPlace)
      : lead(roundUp(shape.halfX, kAlign)),
        stride(roundUp(lead + roundUp(shape.width, kStep) + shape.halfX + kStep, kAlign)) {
    static_assert(alignof(Sum) >= alignof(In));
    const std::size_t all = kTogether<Sum> * stride;
    const std::size_t kinds = shape.halfX > kMaxTapsHalf ? 3 : shape.halfX == kMaxTapsHalf ? 2 : 1;
    const std::size_t keptRows = inPlace ? std::min(shape.halfY + 1, shape.height) : 0;
    const std::size_t samples = ((keptRows + 1) * shape.width * sizeof(In) + sizeof(Sum) - 1) / sizeof(Sum);
    memory = allocateAligned<Sum>(kinds * all + samples);
    if (memory) {
      lines = memory.samples;
      fours = kinds >= 2 ? lines + all : nullptr;
      sixteens = kinds == 3 ? lines + 2 * all : nullptr;
      zeros = reinterpret_cast<In *>(lines + kinds * all);
      kept = inPlace ? zeros + shape.width : nullptr;
      std::memset(lines, 0, all * sizeof(Sum));
      std::memset(zeros, 0, shape.width * sizeof(In));
    }
  }
  bool allocated() const { return static_cast<bool>(memory); }
  // The line of the k-th output row from the first column of its first window on, and its sums of neighbours.
  std::size_t lineAt(const BoxShape &shape, std::size_t k) const { return k * stride + lead - shape.halfX; }
};

// The last step of plain sums.
struct Unchanged {
  template <typename Sum>
  KELM_INLINE_LAMBDA Sum operator()(Sum sum) const {
    return sum;
  }
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

// Of samples that lie `kApart` apart.
template <std::size_t kApart = 1, typename Sum, typename Out, typename Finish, std::size_t... kTap>
KELM_INLINE void sumTaps(Out *__restrict out, const Sum *__restrict line, std::size_t n, Finish finish,
                         std::index_sequence<kTap...>) {
  for (std::size_t x = 0; x < n; ++x) {
    put(&out[x], static_cast<Sum>((line[x + kApart * kTap] + ...)), finish);
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

template <typename Sum>
KELM_INLINE void sumNeighbours(Sum *__restrict fours, Sum *__restrict sixteens, const Sum *__restrict lines,
                               std::size_t n) {
  for (std::size_t x = 0; x + 3 < n; ++x) {
    fours[x] = static_cast<Sum>(lines[x] + lines[x + 1] + lines[x + 2] + lines[x + 3]);
  }
  for (std::size_t x = 0; x + 15 < n; ++x) {
    sixteens[x] = static_cast<Sum>(fours[x] + fours[x + 4] + fours[x + 8] + fours[x + 12]);
  }
}

// A sum of `span` samples moves on by 16 positions by adding the 16 samples that enter and subtracting the 16 that
// leave: 16 neighbouring sums at once, at a cost that does not depend on the window. The sums may take the place of
// `fours`.
template <typename Sum>
KELM_INLINE void sumRunning(Sum *__restrict sums, const Sum *line, const Sum *fours, const Sum *__restrict sixteens,
                            std::size_t n, std::size_t span) {
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
  std::size_t x = 0;
  for (; x + kStep <= n; x += kStep) {
    store(sums + x, run);
    addTo(run, sixteens + x + span);
    subtractFrom(run, sixteens + x);
  }
  if (x < n) {
    Sum rest[kStep];
    store(rest, run);
    std::memcpy(sums + x, rest, (n - x) * sizeof(Sum));
  }
}

template <typename Sum, typename In, typename Out, typename Finish>
KELM_INLINE void sumWide(Out *out, const BoxShape &shape, const BoxScratch<Sum, In> &scratch, std::size_t rows,
                         Finish finish) {
  sumNeighbours(scratch.fours, scratch.sixteens, scratch.lines, rows * scratch.stride);
  const auto sumRow = [&](Sum *sums, std::size_t k) KELM_INLINE_LAMBDA {
    const std::size_t at = scratch.lineAt(shape, k);
    sumRunning(sums, scratch.lines + at, scratch.fours + at, scratch.sixteens + at, shape.width, shape.spanX());
  };
  if constexpr (std::is_same_v<Finish, Unchanged>) {
    for (std::size_t k = 0; k < rows; ++k) {
      sumRow(out + k * shape.width, k);
    }
  } else {
    for (std::size_t k = 0; k < rows; ++k) {
      sumRow(scratch.fours + scratch.lineAt(shape, k), k);
    }
    for (std::size_t k = 0; k < rows; ++k) {
      sumTaps(out + k * shape.width, scratch.fours + scratch.lineAt(shape, k), shape.width, finish,
              std::make_index_sequence<1>());
    }
  }
}

// Nine samples as three times three, which takes seven loads and stores instead of nine.
template <typename Sum, typename In, typename Out, typename Finish>
KELM_INLINE void sumNine(Out *out, const BoxShape &shape, const BoxScratch<Sum, In> &scratch, std::size_t rows,
                         Finish finish) {
  constexpr auto kThree = std::make_index_sequence<3>();
  sumTaps(scratch.fours, scratch.lines, rows * scratch.stride - 2, Unchanged(), kThree);
  for (std::size_t k = 0; k < rows; ++k) {
    sumTaps<3>(out + k * shape.width, scratch.fours + scratch.lineAt(shape, k), shape.width, finish, kThree);
  }
}

// The sums of `rows` output rows along their lines.
template <typename Sum, typename In, typename Out, typename Finish>
KELM_INLINE void sumAlongRows(Out *out, const BoxShape &shape, const BoxScratch<Sum, In> &scratch, std::size_t rows,
                              Finish finish) {
  const auto taps = [&](auto spans) KELM_INLINE_LAMBDA {
    for (std::size_t k = 0; k < rows; ++k) {
      sumTaps(out + k * shape.width, scratch.lines + scratch.lineAt(shape, k), shape.width, finish, spans);
    }
  };
  switch (shape.halfX) {
    case 0:
      return taps(std::make_index_sequence<1>());
    case 1:
      return taps(std::make_index_sequence<3>());
    case 2:
      return taps(std::make_index_sequence<5>());
    case 3:
      return taps(std::make_index_sequence<7>());
    case kMaxTapsHalf:
      return sumNine(out, shape, scratch, rows, finish);
    default:
      return sumWide(out, shape, scratch, rows, finish);
  }
}

template <typename In>
struct Moving {
  const In *entering;
  const In *leaving;
};

// Moves the column sums on from the last line to those of the next output rows.
template <typename Sum, typename In, typename Read>
KELM_INLINE void moveColumns(Sum *__restrict lines, std::size_t stride, const Moving<In> (&moving)[kTogether<Sum>],
                             std::size_t n, Read read) {
  for (std::size_t x = 0; x < n; ++x) {
    Sum sum = lines[(kTogether<Sum> - 1) * stride + x];
    for (std::size_t k = 0; k < kTogether<Sum>; ++k) {
      sum = static_cast<Sum>(sum + read(moving[k].entering[x]) - read(moving[k].leaving[x]));
      lines[k * stride + x] = sum;
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
  Sum *const lines = scratch.lines + scratch.lead;
  Sum *const last = lines + (kTogether<Sum> - 1) * scratch.stride;
  for (std::size_t y = 0; y < shape.halfY && y < shape.height; ++y) {  // the window of the row above the first
    for (std::size_t x = 0; x < width; ++x) {
      last[x] = static_cast<Sum>(last[x] + read(in[y * width + x]));
    }
  }
  for (std::size_t first = 0; first < shape.height; first += kTogether<Sum>) {
    const std::size_t rows = std::min(kTogether<Sum>, shape.height - first);
    Moving<In> moving[kTogether<Sum>];
    for (std::size_t k = 0; k < kTogether<Sum>; ++k) {
      const std::size_t enters = first + k + shape.halfY;
      const std::size_t leaves = first + k - shape.halfY - 1;  // wraps, and so is above any row, while none leaves
      const bool overwritten = scratch.kept != nullptr && leaves < first;
      const In *const old = overwritten ? scratch.kept + leaves % slots * width : in + leaves * width;
      moving[k] = {enters < shape.height ? in + enters * width : scratch.zeros,
                   leaves < shape.height ? old : scratch.zeros};
    }
    moveColumns(lines, scratch.stride, moving, width, read);
    for (std::size_t y = first; scratch.kept != nullptr && y < first + rows; ++y) {
      std::memcpy(scratch.kept + y % slots * width, in + y * width, width * sizeof(In));
    }
    sumAlongRows(out + first * width, shape, scratch, rows, finish);
  }
}

}  // namespace kelm::image

#endif
