// SPDX-License-Identifier: Apache-2.0
// Lines in blocks of a fixed number of samples, the last one overlapping the one before. With a number that the
// compiler knows, a line leaves no rest for a loop of single samples, which often takes longer than all the others.
//
//   inBlocks<32>(width, [=](std::size_t first, std::size_t count) KELM_INLINE_LAMBDA {
//     addSamples(out + first, in + first, count);  // KELM_INLINE: `count` is the constant 32 for all but short lines
//   });
//
// Samples under the overlap are taken twice, so a step must give the same when it is done again.
#ifndef KELMTROVA_IMAGE_SUPPORT_BLOCKS_H
#define KELMTROVA_IMAGE_SUPPORT_BLOCKS_H

#include <cstddef>

#include "image/support/kernel.h"

namespace kelm::image {

// step(first, kBlock) for blocks that cover the samples 0 to n - 1; n is at least kBlock.
template <std::size_t kBlock, typename Step>
KELM_INLINE void inWholeBlocks(std::size_t n, Step step) {
  for (std::size_t done = 0; done < n; done += kBlock) {
    const std::size_t first = done < n - kBlock ? done : n - kBlock;
    step(first, kBlock);
  }
}

// The same for steps that take any number of blocks at once, for loops so short that calling them for every block would
// cost as much: step(0, count) with a multiple of kBlock, and step(n - kBlock, kBlock) for what is left, or step(0, n)
// for a line that is shorter than a block.
template <std::size_t kBlock, typename Step>
KELM_INLINE void inOneStretch(std::size_t n, Step step) {
  if (n < kBlock) {
    step(0, n);
    return;
  }
  step(0, n / kBlock * kBlock);
  if (n % kBlock != 0) {
    step(n - kBlock, kBlock);
  }
}

// The same for lines of any length. One that is shorter than a block is taken in blocks of the next smaller size, or as
// a single step(0, n).
template <std::size_t kBlock, std::size_t... kSmaller, typename Step>
KELM_INLINE void inBlocks(std::size_t n, Step step) {
  if (n >= kBlock) {
    inWholeBlocks<kBlock>(n, step);
  } else if constexpr (sizeof...(kSmaller) > 0) {
    inBlocks<kSmaller...>(n, step);
  } else {
    step(0, n);
  }
}

}  // namespace kelm::image

#endif
