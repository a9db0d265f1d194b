// SPDX-License-Identifier: Apache-2.0
// Counting grey levels.
#include "image/buffers/histogram.h"

#include <cstdlib>

#include "image/support/kernel.h"
#include "image/support/words.h"

namespace kelm::image {
namespace {

// One table per position in a word: an increment need not wait for the previous one's store, which in a picture of few
// grey levels hits the same counter.
constexpr std::size_t kWord = sizeof(std::uint64_t);
constexpr std::size_t kChunk = 8 * kWord;
using Tables = std::uint32_t[kWord][kGreyLevels];

KELM_INLINE void countWord(Tables &tables, const std::uint8_t *pixels) {
  for (std::size_t k = 0; k < kWord; ++k) {
    ++tables[k][pixels[k]];
  }
}

KELM_INLINE std::uint64_t repeated(std::uint8_t value) { return value * 0x0101010101010101U; }

KELM_INLINE bool isRun(const std::uint8_t *pixels) {
  const std::uint64_t word = repeated(pixels[0]);
  std::uint64_t difference = 0;
  for (std::size_t i = kWord; i < kChunk; i += kWord) {
    difference |= word ^ loadWord<std::uint64_t>(pixels + i);
  }
  return difference == 0;
}

// A chunk that begins with a word of equal pixels, as most of a mask does.
KELM_INLINE void countRuns(Tables &tables, const std::uint8_t *pixels) {
  if (isRun(pixels)) {
    tables[0][pixels[0]] += static_cast<std::uint32_t>(kChunk);
    return;
  }
  for (std::size_t i = 0; i < kChunk; i += kWord) {
    if (loadWord<std::uint64_t>(pixels + i) == repeated(pixels[i])) {
      tables[0][pixels[i]] += static_cast<std::uint32_t>(kWord);
    } else {
      countWord(tables, pixels + i);
    }
  }
}

}  // namespace

void computeHistogram(std::uint32_t *counters, const std::uint8_t *image, std::size_t pixels) {
  Tables tables = {};
  std::size_t i = 0;
  for (; pixels - i >= kChunk; i += kChunk) {
    if (loadWord<std::uint64_t>(image + i) == repeated(image[i])) {
      countRuns(tables, image + i);
      continue;
    }
    for (std::size_t offset = 0; offset < kChunk; offset += kWord) {
      countWord(tables, image + i + offset);
    }
  }
  for (; i < pixels; ++i) {
    ++tables[0][image[i]];
  }
  for (std::size_t level = 0; level < kGreyLevels; ++level) {
    std::uint32_t sum = 0;
    for (const auto &table : tables) {
      sum += table[level];
    }
    counters[level] = sum;
  }
}

Buffer<Histogram> newHistogram(const std::uint8_t *image, std::size_t pixels) {
  Buffer<Histogram> histogram = allocate<Histogram>(1);
  if (histogram != nullptr) {
    computeHistogram(histogram[0].counter, image, pixels);
  }
  return histogram;
}

}  // namespace kelm::image

using namespace kelm::image;

Histogram *HistogramCreate(void) { return allocate<Histogram>(1).release(); }

void HistogramDestroy(Histogram *histogram) { std::free(histogram); }

Histogram *HistogramCompute(const uint8_t *image, uint16_t height, uint16_t width) {
  return image == nullptr ? nullptr : newHistogram(image, std::size_t{height} * width).release();
}
