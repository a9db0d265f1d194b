// SPDX-License-Identifier: Apache-2.0
// Walking lines of bits, 64 in a word, the lowest first.
//
//   forEachBit(word, [&](std::size_t bit) KELM_INLINE_LAMBDA { ... });
//   forEachRun(width, [=](std::size_t at) KELM_INLINE_LAMBDA { return matchFrom(matcher, at); },
//              [&](std::size_t start, std::size_t end) KELM_INLINE_LAMBDA { ... });
#ifndef KELMTROVA_IMAGE_SUPPORT_BITS_H
#define KELMTROVA_IMAGE_SUPPORT_BITS_H

#include <bit>
#include <cstddef>
#include <cstdint>

#include "image/support/kernel.h"

namespace kelm::image {

constexpr std::size_t kWordBits = 64;

// visit(i) for every bit i that is set, from the lowest on.
template <typename Visit>
KELM_INLINE void forEachBit(std::uint64_t word, Visit visit) {
  for (; word != 0; word &= word - 1) {
    visit(static_cast<std::size_t>(std::countr_zero(word)));
  }
}

// The bits with which runs of set bits start. `before`: the bit before the lowest one, 0 or 1; for the next word that
// is `word >> 63`.
KELM_INLINE std::uint64_t runStarts(std::uint64_t word, std::uint64_t before) { return word & ~(word << 1 | before); }

// visit(start, end) for every run of set bits, [start, end), of a line of `size` bits. wordAt(i) is the word with bits
// i to i + 63, for i = 0, 64, ...; bits past the end of the line are 0.
template <typename WordAt, typename Visit>
KELM_INLINE void forEachRun(std::size_t size, WordAt wordAt, Visit visit) {
  std::size_t start = 0;
  std::uint64_t before = 0;
  for (std::size_t at = 0; at < size; at += kWordBits) {
    const std::uint64_t word = wordAt(at);
    std::uint64_t inside = before;
    forEachBit(word ^ (word << 1 | before), [&](std::size_t bit) KELM_INLINE_LAMBDA {
      if (inside != 0) {
        visit(start, at + bit);
      } else {
        start = at + bit;
      }
      inside ^= 1;
    });
    before = word >> (kWordBits - 1);
  }
  if (before != 0) {
    visit(start, size);
  }
}

}  // namespace kelm::image

#endif
