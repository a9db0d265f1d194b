// SPDX-License-Identifier: Apache-2.0
// Grey-level histogram, its statistics and its picture.
#include "image/buffers/histogram.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "image/support/dispatch.h"

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

KELM_INLINE std::uint64_t loadWord(const std::uint8_t *pixels) {
  std::uint64_t word;
  std::memcpy(&word, pixels, sizeof word);
  return word;
}

KELM_INLINE std::uint64_t repeated(std::uint8_t value) { return value * 0x0101010101010101U; }

KELM_INLINE bool isRun(const std::uint8_t *pixels) {
  const std::uint64_t word = repeated(pixels[0]);
  std::uint64_t difference = 0;
  for (std::size_t i = kWord; i < kChunk; i += kWord) {
    difference |= word ^ loadWord(pixels + i);
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
    if (loadWord(pixels + i) == repeated(pixels[i])) {
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
    if (loadWord(image + i) == repeated(image[i])) {
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

Block<Histogram> newHistogram(const std::uint8_t *image, std::size_t pixels) {
  Block<Histogram> histogram = allocate<Histogram>(1);
  if (histogram != nullptr) {
    computeHistogram(histogram[0].counter, image, pixels);
  }
  return histogram;
}

std::uint8_t roundedMean(std::uint32_t weighted, std::uint32_t count) {
  if (count == 0) {
    return 0;
  }
  const auto divisor = static_cast<std::int32_t>(count);
  const auto dividend = static_cast<std::int32_t>(weighted + static_cast<std::uint32_t>(divisor / 2));
  // 64 bits, because the smallest number divided by -1 does not fit into 32.
  return static_cast<std::uint8_t>(std::int64_t{dividend} / divisor);
}

std::uint32_t roundedVariance(std::uint32_t squares, std::uint32_t count) {
  return count == 0 ? 0 : (squares + count / 2) / count;
}

namespace {

std::uint32_t countOf(const Histogram &histogram) {
  std::uint32_t count = 0;
  for (const std::uint32_t counter : histogram.counter) {
    count += counter;
  }
  return count;
}

std::uint8_t meanOf(const Histogram &histogram) {
  std::uint32_t weighted = 0;
  for (std::uint32_t level = 0; level < kGreyLevels; ++level) {
    weighted += level * histogram.counter[level];
  }
  return roundedMean(weighted, countOf(histogram));
}

std::uint32_t varianceAbout(const Histogram &histogram, std::uint8_t mean) {
  std::uint32_t squares = 0;
  for (int level = 0; level < kGreyLevels; ++level) {
    const int deviation = level - mean;
    squares += histogram.counter[level] * static_cast<std::uint32_t>(deviation * deviation);
  }
  return roundedVariance(squares, countOf(histogram));
}

constexpr std::size_t kPictureRows = 256;

// Bars of value 255 that stand on the bottom row of a black picture. A height is at most 255: no counter exceeds
// `largest`, and the product of the two roundings stays below 256.
void drawBars(std::uint8_t *picture, const std::uint32_t *counters, std::size_t columns) {
  const std::uint32_t largest = *std::max_element(counters, counters + columns);
  if (largest == 0) {
    return;
  }
  const float scale = 255.0F / static_cast<float>(largest);
  for (std::size_t column = 0; column < columns; ++column) {
    const auto height = static_cast<std::size_t>(static_cast<float>(counters[column]) * scale);
    for (std::size_t row = kPictureRows - height; row < kPictureRows; ++row) {
      picture[row * columns + column] = 255;
    }
  }
}

// Writes a whole file or none: an ordinary file that could not be written to its end is emptied and removed.
void writeFile(const char *path, const std::uint8_t *bytes, std::size_t size) {
  std::FILE *file = std::fopen(path, "wb");
  if (file == nullptr) {
    return;
  }
  struct stat status = {};
  fstat(fileno(file), &status);
  const bool ordinary = S_ISREG(status.st_mode);
  bool written = std::fwrite(bytes, 1, size, file) == size && std::fflush(file) == 0;
  if (!written && ordinary) {
    // The path may be a link: the file behind it must not stay half-written.
    [[maybe_unused]] const int emptied = ftruncate(fileno(file), 0);
  }
  written = std::fclose(file) == 0 && written;
  if (!written && ordinary) {
    std::remove(path);
  }
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

Histogram *HistogramCreate(void) { return allocate<Histogram>(1).release(); }

void HistogramDestroy(Histogram *histogram) { std::free(histogram); }

Histogram *HistogramCompute(const uint8_t *image, uint16_t height, uint16_t width) {
  return image == nullptr ? nullptr : newHistogram(image, std::size_t{height} * width).release();
}

uint8_t HistogramGetMean(const Histogram *histogram) { return histogram == nullptr ? 0 : meanOf(*histogram); }

uint32_t HistogramGetVariance(const Histogram *histogram) {
  return histogram == nullptr ? 0 : varianceAbout(*histogram, meanOf(*histogram));
}

uint32_t HistogramGetVariance2(const Histogram *histogram, uint8_t mean) {
  return histogram == nullptr ? 0 : varianceAbout(*histogram, mean);
}

int32_t HistogramPrint(const uint32_t *counters, int16_t n, const char *path) {
  if (counters == nullptr || path == nullptr || n < 0) {
    return 0;
  }
  const auto columns = static_cast<std::size_t>(n);
  const std::size_t size = columns * kPictureRows;
  const Block<std::uint8_t> picture = allocateZeroed<std::uint8_t>(size);
  if (picture == nullptr) {
    return 0;
  }
  if (columns > 0) {
    drawBars(picture.get(), counters, columns);
  }
  writeFile(path, picture.get(), size);
  return 0;
}
